// The COM task allocator on POSIX. Each block carries a small header in front of the
// caller's bytes recording what it is counted as and whether it was counted at all,
// so blocks from before StartAllocCounting() are released without touching the
// counters, and a BSTR is never mistaken for a plain block.
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "platform/Platform.h"
#include "platform/posix/ComInternal.h"

namespace corvane::platform::detail {
namespace {

constexpr uint32_t kLiveMagic = 0xC0A11C8Du;
constexpr uint32_t kFreedMagic = 0xDEADF4EEu;

// 16 bytes so that the caller's pointer keeps malloc's alignment for any type.
struct alignas(16) BlockHeader {
  uint32_t magic;
  BlockKind kind;
  uint8_t counted;
  uint8_t reserved[10];
};
static_assert(sizeof(BlockHeader) == 16, "header keeps 16-byte alignment");

BlockHeader* HeaderOf(void* user) { return static_cast<BlockHeader*>(user) - 1; }
void* UserOf(BlockHeader* header) { return header + 1; }

void* Allocate(size_t bytes, BlockKind kind) {
  if (bytes > SIZE_MAX - sizeof(BlockHeader)) return nullptr;
  auto* header = static_cast<BlockHeader*>(std::malloc(sizeof(BlockHeader) + bytes));
  if (!header) return nullptr;
  header->magic = kLiveMagic;
  header->kind = kind;
  header->counted = NoteAlloc(kind) ? 1 : 0;
  return UserOf(header);
}

void Release(void* user) {
  if (!user) return;
  BlockHeader* header = HeaderOf(user);
  // A pointer that is not a live block (double free, foreign pointer) is a caller
  // fault; aborting at once is kinder than corrupting the heap silently.
  if (header->magic != kLiveMagic) std::abort();
  header->magic = kFreedMagic;
  if (header->counted) NoteFree(header->kind);
  std::free(header);
}

}  // namespace

void* AllocBstrBlock(size_t bytes) { return Allocate(bytes, BlockKind::Bstr); }
void FreeBstrBlock(void* block) { Release(block); }

}  // namespace corvane::platform::detail

using corvane::platform::detail::BlockHeader;
using corvane::platform::detail::BlockKind;

extern "C" {

LPVOID CoTaskMemAlloc(SIZE_T cb) { return corvane::platform::detail::Allocate(cb, BlockKind::Com); }

LPVOID CoTaskMemRealloc(LPVOID pv, SIZE_T cb) {
  using namespace corvane::platform::detail;
  if (!pv) return cb ? Allocate(cb, BlockKind::Com) : nullptr;
  if (cb == 0) {
    Release(pv);
    return nullptr;
  }
  BlockHeader* header = HeaderOf(pv);
  if (header->magic != kLiveMagic) std::abort();
  if (cb > SIZE_MAX - sizeof(BlockHeader)) return nullptr;
  // The header moves with the block, so a counted block stays counted exactly once
  // and a failed realloc leaves the original untouched, as the caller expects.
  auto* moved = static_cast<BlockHeader*>(std::realloc(header, sizeof(BlockHeader) + cb));
  if (!moved) return nullptr;
  return UserOf(moved);
}

void CoTaskMemFree(LPVOID pv) { corvane::platform::detail::Release(pv); }

HRESULT CoFileTimeNow(FILETIME* lpFileTime) {
  if (!lpFileTime) return E_INVALIDARG;
  GetSystemTimeAsFileTime(lpFileTime);
  return S_OK;
}

}  // extern "C"
