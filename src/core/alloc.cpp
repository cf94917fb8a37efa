#include <tarnel_util/tn_alloc.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

namespace {

void *default_alloc(tn_uint32 size) { return std::malloc(size); }
void default_free(void *block) { std::free(block); }

// Hosts set the hooks before anything else runs, but tests swap them between
// cases while earlier threads may still be winding down; relaxed atomics cost
// nothing on loads and keep that well-defined.
std::atomic<tn_alloc_handler> alloc_handler{default_alloc};
std::atomic<tn_free_handler> free_handler{default_free};

} // namespace

void *tn_alloc(tn_uint32 size)
{
    return alloc_handler.load(std::memory_order_relaxed)(size ? size : 1);
}

void *tn_alloc_zero(tn_uint32 size)
{
    void *block = tn_alloc(size);
    if (block && size) std::memset(block, 0, size);
    return block;
}

void *tn_alloc_re(void *block, tn_uint32 old_size, tn_uint32 new_size)
{
    if (new_size <= old_size) return block;
    void *grown = tn_alloc(new_size);
    if (!grown) return nullptr;
    if (old_size) std::memcpy(grown, block, old_size);
    tn_alloc_free(block);
    return grown;
}

void tn_alloc_free(void *block)
{
    if (block) free_handler.load(std::memory_order_relaxed)(block);
}

void tn_alloc_set_alloc_handler(tn_alloc_handler handler)
{
    alloc_handler.store(handler, std::memory_order_relaxed);
}

void tn_alloc_set_free_handler(tn_free_handler handler)
{
    free_handler.store(handler, std::memory_order_relaxed);
}
