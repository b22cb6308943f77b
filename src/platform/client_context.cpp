#include "platform/client_context.h"

#include "platform/clock.h"
#include "platform/serve.h"
#include "platform/t4mi_globals.h"

t4mi_client_context::t4mi_client_context(uint64_t id_) : id(id_) {}

t4mi_client_context::~t4mi_client_context()
{
    // A derived context has expired its references already; whatever is
    // left may point at frames that are gone, so it is only forgotten.
    for (auto& r : references)
        r->frame = nullptr;
    references.clear();
}

bool t4mi_client_context::apply_data_packet(const comm_socket_v4_packet*) { return true; }

size_t t4mi_client_context::pending_request_count() const
{
    return connection != nullptr ? t4mi_connection_pending_frame_requests(connection) : 0;
}

void t4mi_client_context::expire_all_references()
{
    // Moved out first: a release that looks at the context finds no half-torn list.
    auto doomed = std::move(references);
    references.clear();
    for (auto& r : doomed)
        r->release_frame();
}

void t4mi_client_context::add_reference(t4mi_video_frame_reference* reference)
{
    references.emplace_back(reference);
}

bool t4mi_client_context::release_reference(uint64_t requested_frame, uint32_t requested_variant)
{
    for (auto it = references.begin(); it != references.end(); ++it) {
        if ((*it)->requested_frame == requested_frame && (*it)->requested_variant == requested_variant) {
            std::unique_ptr<t4mi_video_frame_reference> r = std::move(*it);
            references.erase(it);
            r->release_frame();
            return true;
        }
    }
    return false;
}

size_t t4mi_client_context::expire_references_held_since(uint64_t limit_us)
{
    size_t n = 0;
    for (auto it = references.begin(); it != references.end();) {
        if ((*it)->held_since <= limit_us) {
            std::unique_ptr<t4mi_video_frame_reference> r = std::move(*it);
            it = references.erase(it);
            r->release_frame();
            ++n;
        } else {
            ++it;
        }
    }
    return n;
}

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

t4mi_client_context* client_context_tracking_get_id(const t4mi_client_context_registry& registry, uint64_t id,
                                                    const t4mi_connection* connection)
{
    t4mi_client_context* ctx = registry.get(id);
    if (ctx == nullptr || (connection != nullptr && ctx->connection != connection))
        return nullptr;
    return ctx;
}
