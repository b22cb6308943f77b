#include "platform/client_context.h"

#include "platform/t4mi_globals.h"

t4mi_client_context::t4mi_client_context(uint64_t id_) : id(id_) {}
t4mi_client_context::~t4mi_client_context() = default;

void t4mi_client_context::apply_client_settings(const t4mi_client_settings& s)
{
    if (s.width > 0)
        picture_width = uint32_t(s.width);
    if (s.height > 0)
        picture_height = uint32_t(s.height);
    state_configured = 1;
    state_pending = 0;
}

t4mi_client_context* t4mi_client_context_registry::create()
{
    if (!make_context)
        return nullptr;
    const uint64_t id = next_id++;
    t4mi_client_context* ctx = make_context(id);
    if (ctx == nullptr)
        return nullptr;
    contexts.emplace(id, std::unique_ptr<t4mi_client_context>(ctx));
    return ctx;
}

t4mi_client_context* t4mi_client_context_registry::get(uint64_t id) const
{
    const auto it = contexts.find(id);
    return it == contexts.end() ? nullptr : it->second.get();
}

void t4mi_client_context_registry::destroy(uint64_t id)
{
    // Take it out first: a destructor that looks at the registry must not find itself.
    auto it = contexts.find(id);
    if (it == contexts.end())
        return;
    std::unique_ptr<t4mi_client_context> doomed = std::move(it->second);
    contexts.erase(it);
}

void t4mi_client_context_registry::destroy_all()
{
    while (!contexts.empty())
        destroy(contexts.begin()->first);
}

t4mi_video_frame_reference* t4mi_client_context_registry::create_reference(uint64_t context_id, uint64_t frame_number,
                                                                          uint32_t variant) const
{
    return make_reference ? make_reference(context_id, frame_number, variant) : nullptr;
}

void close_t4mi_client_contexts() { t4mi_client_contexts.destroy_all(); }
