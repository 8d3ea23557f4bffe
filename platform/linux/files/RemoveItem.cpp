// Keeps the first failure of a removal that goes on.
#include "platform/linux/files/RemoveItem.h"

#include <cerrno>
#include <memory>

namespace quorvel::onlinux {
namespace {

// What vanishes meanwhile is what was wanted.
int KeepFirst(WipeTreeState& state, const char*, void* context) {
  auto* first = static_cast<int*>(context);
  int number = EIO;
  state.getErrorNumber(&number);
  if (*first == 0 && number != ENOENT) *first = number;
  return WIPETREE_PROCEED;
}

}  // namespace

int RemoveItem(FileSystem& files, const std::string& path) {
  const std::unique_ptr<WipeTreeState> state = files.allocateWipeTreeState();
  int first = 0;
  if (state == nullptr || !state->setErrorCallback(KeepFirst) || !state->setErrorContext(&first)) {
    return errno;
  }
  const bool isWalked = files.RemoveTree(path.c_str(), WIPETREE_RECURSIVE, *state) == 0;
  return first != 0 || isWalked || errno == ENOENT ? first : errno;
}

}  // namespace quorvel::onlinux
