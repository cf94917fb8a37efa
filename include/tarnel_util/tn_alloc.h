/*
 * tn_alloc.h - the allocation hooks.
 *
 * All memory the library takes passes through tn_alloc and is given back
 * through tn_alloc_free, and those two call a pair of process-wide handlers
 * that a host may replace. The defaults are the C runtime's malloc and free.
 * There is no reallocation handler: growth is always allocate, copy, free.
 */
#ifndef TARNEL_UTIL_TN_ALLOC_H
#define TARNEL_UTIL_TN_ALLOC_H

#include "tn_types.h"

TN_BEGIN_DECLS

/* Returns a block of at least size bytes, or null. */
typedef void *(*tn_alloc_handler)(tn_uint32 size);
/* Releases a block; never called with null. */
typedef void (*tn_free_handler)(void *block);

/* Returns a block of size bytes with undefined content, or null when the
 * handler fails. A size of 0 asks the handler for 1 byte, so a successful
 * call never returns null. */
TN_API void *tn_alloc(tn_uint32 size);

/* As tn_alloc, then clears size bytes. Null is returned as it came. */
TN_API void *tn_alloc_zero(tn_uint32 size);

/* Grows a block. If new_size is not above old_size the pointer comes back
 * unchanged and no handler is called: blocks never shrink. Otherwise a new
 * block of new_size bytes is allocated, the first old_size bytes are copied
 * into it, the old block (if any) is freed, and the new block is returned.
 * On failure null is returned and the old block stays valid and untouched. */
TN_API void *tn_alloc_re(void *block, tn_uint32 old_size, tn_uint32 new_size);

/* Hands a block back to the free handler. Null is ignored. */
TN_API void tn_alloc_free(void *block);

/* Replace the handlers. Set both before any other use of the library and
 * before other threads run; a block must go back to the free handler that
 * matches the allocation handler that gave it. Null is not refused. */
TN_API void tn_alloc_set_alloc_handler(tn_alloc_handler handler);
TN_API void tn_alloc_set_free_handler(tn_free_handler handler);

TN_END_DECLS

#endif /* TARNEL_UTIL_TN_ALLOC_H */
