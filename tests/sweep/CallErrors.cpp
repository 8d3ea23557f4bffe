// Which errors a system call on files can return on Linux.
#include "tests/sweep/CallErrors.h"

#include <cerrno>
#include <map>

namespace quorvel::sweep {

namespace {

using Errors = std::vector<int>;

// EUCLEAN and EBADMSG: ext4, XFS and btrfs say so of damaged structures and checksums; ESTALE and
// ETIMEDOUT: network file systems; ENOSPC of a removal: file systems that write copies.
const Errors& Opening() {
  static const Errors errors = {EIO,     EACCES, EPERM, EMFILE,   ENOMEM,
                                EUCLEAN, ESTALE, EINTR, ETIMEDOUT};
  return errors;
}

const Errors& Creating() {
  static const Errors errors = {EIO,    ENOSPC, EDQUOT,  EACCES, EPERM, EROFS,
                                EMFILE, ENOMEM, EUCLEAN, ESTALE, EINTR};
  return errors;
}

const Errors& Changing() {
  static const Errors errors = {EIO, ENOSPC, EDQUOT, EACCES, EPERM, EROFS, ENOMEM, EUCLEAN, ESTALE};
  return errors;
}

const Errors& Writing() {
  static const Errors errors = {EIO, ENOSPC, EDQUOT, EPERM, EROFS, ENOMEM, EINTR, ETIMEDOUT};
  return errors;
}

const Errors& Flushing() {
  static const Errors errors = {EIO, ENOSPC, EDQUOT, EROFS, ESTALE, EINTR};
  return errors;
}

const Errors& Reading() {
  static const Errors errors = {EIO, ENOMEM, EUCLEAN, EBADMSG, ESTALE, EINTR, ETIMEDOUT};
  return errors;
}

const Errors& Looking() {
  static const Errors errors = {EIO, EACCES, ENOMEM, EUCLEAN, EBADMSG, ESTALE, ETIMEDOUT};
  return errors;
}

const std::map<std::string, int>& Names() {
  static const std::map<std::string, int> names = {{"EIO", EIO},
                                                   {"ENOSPC", ENOSPC},
                                                   {"EDQUOT", EDQUOT},
                                                   {"EACCES", EACCES},
                                                   {"EPERM", EPERM},
                                                   {"EROFS", EROFS},
                                                   {"EMFILE", EMFILE},
                                                   {"ENOMEM", ENOMEM},
                                                   {"EUCLEAN", EUCLEAN},
                                                   {"EBADMSG", EBADMSG},
                                                   {"ESTALE", ESTALE},
                                                   {"EINTR", EINTR},
                                                   {"ETIMEDOUT", ETIMEDOUT}};
  return names;
}

}  // namespace

std::vector<int> ErrorsOf(const tests::TracedCall& call) {
  switch (call.number) {
    case SYS_write:
    case SYS_pwrite64:
    case SYS_writev:
    case SYS_pwritev:
    case SYS_pwritev2:
    case SYS_copy_file_range:
    case SYS_sendfile:
    case SYS_ftruncate:
    case SYS_fallocate:
      return Writing();
    case SYS_fsync:
    case SYS_fdatasync:
    case SYS_syncfs:
    case SYS_sync_file_range:
      return Flushing();
    case SYS_read:
    case SYS_pread64:
    case SYS_getdents64:
      return Reading();
    case SYS_openat:
      return tests::ChangesSomething(call) ? Creating() : Opening();
    case SYS_openat2:
      return Opening();
    default:
      break;
  }
  if (tests::ChangesSomething(call)) return Changing();
  return tests::LooksAtFiles(call) ? Looking() : Errors();
}

std::string NameOfError(int number) {
  for (const auto& [name, value] : Names()) {
    if (value == number) return name;
  }
  return {};
}

int ErrorOfName(const std::string& name) {
  const auto at = Names().find(name);
  return at == Names().end() ? 0 : at->second;
}

bool TakesRoom(const tests::TracedCall& call) {
  switch (call.number) {
    case SYS_fsync:
    case SYS_fdatasync:
    case SYS_syncfs:
    case SYS_sync_file_range:
    case SYS_unlinkat:
    case SYS_fchmod:
    case SYS_fchmodat:
    case SYS_fchown:
    case SYS_fchownat:
    case SYS_utimensat:
    case SYS_unlink:
    case SYS_rmdir:
    case SYS_chmod:
    case SYS_chown:
    case SYS_lchown:
      return false;
    default:
      return tests::ChangesSomething(call);
  }
}

}  // namespace quorvel::sweep
