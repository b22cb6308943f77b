// Internals of the JSON value type, shared by the values (json11.cpp), the
// record memory (json11_arena.cpp) and the parser (json11_parse.cpp). Not
// for use outside src/platform/.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/json11.h"

namespace json11 {

// Every value is one immutable record, shared by all copies of its Json.
// The record is as small as its kind allows, because a hostile document of a
// megabyte can hold half a million values. null, true, false and the empty
// string, array and object are shared by every document.
struct Json::impl {
    Type type;
};

// Memory for the records of one parsed document: records are carved from a
// few large blocks instead of one heap block each, which makes a document of
// half a million values several times cheaper to build and to free. Nothing
// is reused within a document (its values are never changed); the blocks go
// back to the heap when the last record of the document is freed, counted
// per allocation so that any value of the document may outlive the others.
class json_arena {
public:
    // A new arena, held once by the caller (release it when done).
    static json_arena* create();
    // `bytes` aligned to `align` (at most alignof(std::max_align_t)); holds the
    // arena until the matching deallocate.
    void* allocate(size_t bytes, size_t align);
    void deallocate() noexcept { release(); }
    void release() noexcept;

private:
    json_arena() = default;
    ~json_arena();
    struct block;
    std::atomic<size_t> holds_{1};
    block* blocks_ = nullptr;
    char* next_ = nullptr; // free space of the newest block
    char* end_ = nullptr;
    size_t block_size_ = 4096; // doubles per block, to a limit
};

// The standard allocator interface over a json_arena, for allocate_shared.
// Copies share the arena and hold nothing: each allocation holds it.
template <typename T>
class arena_allocator {
public:
    using value_type = T;
    explicit arena_allocator(json_arena* a) noexcept : arena_(a) {}
    template <typename U>
    arena_allocator(const arena_allocator<U>& other) noexcept : arena_(other.arena())
    {
    }
    T* allocate(size_t n) { return static_cast<T*>(arena_->allocate(n * sizeof(T), alignof(T))); }
    void deallocate(T*, size_t) noexcept { arena_->deallocate(); }
    json_arena* arena() const noexcept { return arena_; }
    template <typename U>
    bool operator==(const arena_allocator<U>& other) const noexcept
    {
        return arena_ == other.arena();
    }

private:
    json_arena* arena_;
};

// Builds and reads the records (a friend of Json, for the private
// constructor and record type).
class json_builder {
public:
    using member = std::pair<std::string, Json>;

    struct number_value : Json::impl {
        double value;
    };
    struct bool_value : Json::impl {
        bool value;
    };
    struct string_value : Json::impl {
        std::string text;
    };
    // `size` values in one block of the record's arena (or of the heap).
    struct array_value : Json::impl {
        Json* items = nullptr;
        size_t size = 0;
        json_arena* arena = nullptr; // where `items` came from; null: the heap
        ~array_value();
    };
    // Members sorted by key in byte order, keys unique: a lookup is a binary
    // search, and two equal objects have equal lists.
    struct object_value : Json::impl {
        member* members = nullptr;
        size_t size = 0;
        json_arena* arena = nullptr;
        ~object_value();
    };

    // With `arena` null the record comes from the heap.
    static Json number(json_arena* arena, double value);
    static Json string(json_arena* arena, std::string&& text);
    // Moves the values out of `items`, which is left empty.
    static Json array(json_arena* arena, std::vector<Json>& items);
    // `members` in document order; of equal keys the last one is kept. Moves
    // the members out, leaving the vector empty.
    static Json object(json_arena* arena, std::vector<member>& members);
    static const Json& null();
    static const Json& boolean(bool value);

    static const number_value& as_number(const Json& v) { return static_cast<const number_value&>(*v.m_ptr); }
    static const bool_value& as_bool(const Json& v) { return static_cast<const bool_value&>(*v.m_ptr); }
    static const string_value& as_string(const Json& v) { return static_cast<const string_value&>(*v.m_ptr); }
    static const array_value& as_array(const Json& v) { return static_cast<const array_value&>(*v.m_ptr); }
    static const object_value& as_object(const Json& v) { return static_cast<const object_value&>(*v.m_ptr); }
    static bool same_record(const Json& a, const Json& b) { return a.m_ptr == b.m_ptr; }

    // Appends the JSON text of `v` to `out` (see Json::dump).
    static void dump(const Json& v, std::string& out);
};

// Parses `in` (json11_parse.cpp). Never throws: on failure returns null and
// sets `err`; on success clears it.
Json parse_document(const std::string& in, std::string& err, bool comments);

} // namespace json11
