#include <algorithm>
#include <cstdint>
#include <new>

#include "platform/json11_p.h"

namespace json11 {

namespace {
// Blocks grow from 4 KiB to this, so a small document costs one small block
// and a large one a few dozen.
constexpr size_t max_block_size = size_t(1) << 20;
} // namespace

struct json_arena::block {
    block* next;
    size_t size; // bytes after this header
};

json_arena* json_arena::create() { return new json_arena(); }

json_arena::~json_arena()
{
    while (blocks_ != nullptr) {
        block* next = blocks_->next;
        ::operator delete(blocks_);
        blocks_ = next;
    }
}

void* json_arena::allocate(size_t bytes, size_t align)
{
    auto fits = [&](char* from) {
        const auto aligned = (reinterpret_cast<uintptr_t>(from) + align - 1) & ~uintptr_t(align - 1);
        return from != nullptr && aligned + bytes <= reinterpret_cast<uintptr_t>(end_) ? reinterpret_cast<char*>(aligned)
                                                                                    : nullptr;
    };
    char* p = fits(next_);
    if (p == nullptr) {
        // The header keeps the data at the heap's own alignment.
        static_assert(sizeof(block) % alignof(std::max_align_t) == 0);
        const size_t size = std::max(block_size_, bytes);
        auto* b = static_cast<block*>(::operator new(sizeof(block) + size));
        b->size = size;
        char* data = reinterpret_cast<char*>(b + 1);
        if (bytes > block_size_ / 2 && next_ != nullptr) {
            // A large array of its own: keep the newest block's free space.
            b->next = blocks_->next;
            blocks_->next = b;
            holds_.fetch_add(1, std::memory_order_relaxed);
            return data;
        }
        b->next = blocks_;
        blocks_ = b;
        next_ = data;
        end_ = data + size;
        block_size_ = std::min(block_size_ * 2, max_block_size);
        p = fits(next_);
    }
    next_ = p + bytes;
    holds_.fetch_add(1, std::memory_order_relaxed);
    return p;
}

void json_arena::release() noexcept
{
    if (holds_.fetch_sub(1, std::memory_order_acq_rel) == 1)
        delete this;
}

} // namespace json11
