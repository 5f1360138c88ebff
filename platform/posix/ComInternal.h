// Pieces of the POSIX COM layer shared with the OLE Automation code: the BSTR
// storage comes from the same counted allocator as CoTaskMemAlloc but is counted
// apart, so a suite can tell a leaked string from a leaked block.
#pragma once
#ifndef _WIN32
#include <cstddef>
#include <cstdint>

namespace corvane::platform::detail {

// Returns storage for one BSTR (prefix, text and terminator: `bytes` in all), counted
// as a BSTR while counting is on; nullptr when the request cannot be met.
void* AllocBstrBlock(size_t bytes);
// Releases storage from AllocBstrBlock; null is ignored.
void FreeBstrBlock(void* block);

// What a block is counted as. Stored in the block's header so that a release always
// settles the counter it was charged to.
enum class BlockKind : uint8_t { Com = 1, Bstr = 2 };

// Counter hooks used by the allocator: NoteAlloc says whether the new block is
// counted (counting was on), NoteFree settles a counted block.
bool NoteAlloc(BlockKind kind);
void NoteFree(BlockKind kind);

}  // namespace corvane::platform::detail
#endif  // !_WIN32
