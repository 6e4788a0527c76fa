# SPDX-License-Identifier: Apache-2.0
"""The errors of each system call, as section ERRORS of its manual page names them."""
import errno

from harness.state import SHORT

_PATH = "EACCES EFAULT ELOOP ENAMETOOLONG ENOENT ENOMEM ENOTDIR"
_NAMES = {
    "accept4": "EAGAIN EBADF ECONNABORTED EFAULT EINTR EINVAL EMFILE ENFILE ENOBUFS ENOMEM ENOTSOCK "
               "EOPNOTSUPP EPERM EPROTO",
    "access": f"{_PATH} EINVAL EIO EPERM EROFS ETXTBSY",
    "bind": "EACCES EADDRINUSE EADDRNOTAVAIL EBADF EFAULT EINVAL ENOTSOCK",
    "brk": "ENOMEM",
    "chmod": f"{_PATH} EIO EPERM EROFS",
    "close": "EBADF EDQUOT EINTR EIO ENOSPC",
    "connect": "EACCES EADDRINUSE EADDRNOTAVAIL EAFNOSUPPORT EAGAIN EALREADY EBADF ECONNREFUSED "
               "EFAULT EINPROGRESS EINTR EISCONN ENETUNREACH ENOTSOCK EPERM EPROTOTYPE ETIMEDOUT",
    "fchmod": "EBADF EIO EPERM EROFS",
    "fchown": "EBADF EIO ENOENT EPERM EROFS",
    "fcntl": "EACCES EAGAIN EBADF EFAULT EINVAL EMFILE EPERM",
    "fork": "EAGAIN ENOMEM ENOSYS",
    "fsync": "EBADF EDQUOT EINTR EINVAL EIO ENOSPC EROFS",
    "ftruncate": "EBADF EFBIG EINTR EINVAL EIO EPERM EROFS",
    "getcwd": "EACCES EFAULT EINVAL ENOENT ENOMEM ERANGE",
    "getdents64": "EBADF EFAULT EINVAL ENOENT ENOTDIR",
    "getpgid": "ESRCH",
    "getsockopt": "EBADF EFAULT EINVAL ENOPROTOOPT ENOTSOCK",
    "ioctl": "EBADF EFAULT EINVAL ENOTTY",
    "kill": "EINVAL EPERM ESRCH",
    "listen": "EADDRINUSE EBADF ENOTSOCK EOPNOTSUPP",
    "lseek": "EBADF EINVAL ENXIO EOVERFLOW ESPIPE",
    "mkdir": f"{_PATH} EBADF EDQUOT EEXIST EINVAL EMLINK ENOSPC EPERM EROFS",
    "mmap": "EACCES EAGAIN EBADF EEXIST EINVAL ENFILE ENODEV ENOMEM EOVERFLOW EPERM",
    "mprotect": "EACCES EINVAL ENOMEM",
    "mremap": "EAGAIN EFAULT EINVAL ENOMEM",
    "newfstatat": f"{_PATH} EBADF EINVAL EOVERFLOW",
    "nanosleep": "EFAULT EINTR EINVAL",
    "clock_nanosleep": "EFAULT EINTR EINVAL",
    "openat": f"{_PATH} EBADF EBUSY EDQUOT EEXIST EFBIG EINTR EINVAL EISDIR EMFILE ENFILE ENODEV "
              "ENOSPC ENXIO EOPNOTSUPP EOVERFLOW EPERM EROFS ETXTBSY EWOULDBLOCK",
    "pidfd_open": "EINVAL EMFILE ENFILE ENODEV ENOMEM ESRCH",
    "pipe2": "EFAULT EINVAL EMFILE ENFILE",
    "poll": "EFAULT EINTR EINVAL ENOMEM",
    "popen": "EAGAIN EMFILE ENFILE ENOMEM",
    "posix_spawnp": "E2BIG EACCES EAGAIN EIO ELOOP ENOENT ENOEXEC ENOMEM ENOSYS",
    "prlimit64": "EFAULT EINVAL EPERM ESRCH",
    "pselect6": "EBADF EINTR EINVAL ENOMEM",
    "read": "EAGAIN EBADF EFAULT EINTR EINVAL EIO EISDIR",
    # Without EINVAL, which is the answer that there is no link.
    "readlink": f"{_PATH} EIO",
    "readlinkat": f"{_PATH} EBADF EIO",
    "reboot": "EFAULT EINVAL ENOMEM EPERM",
    "recvfrom": "EAGAIN EBADF ECONNREFUSED EFAULT EINTR EINVAL ENOMEM ENOTCONN ENOTSOCK",
    "rename": f"{_PATH} EBUSY EDQUOT EEXIST EINVAL EISDIR EMLINK ENOSPC ENOTEMPTY EPERM EROFS EXDEV",
    "sendmsg": "EACCES EAGAIN EALREADY EBADF ECONNRESET EDESTADDRREQ EFAULT EINTR EINVAL EISCONN "
               "EMSGSIZE ENOBUFS ENOMEM ENOTCONN ENOTSOCK EOPNOTSUPP EPIPE",
    "setsockopt": "EBADF EFAULT EINVAL ENOPROTOOPT ENOTSOCK",
    "shutdown": "EBADF EINVAL ENOTCONN ENOTSOCK",
    "socket": "EACCES EAFNOSUPPORT EINVAL EMFILE ENFILE ENOBUFS ENOMEM EPROTONOSUPPORT",
    "statfs": f"{_PATH} EINTR EIO ENOSYS EOVERFLOW",
    "system": "EAGAIN ECHILD ENOMEM",
    "uname": "EFAULT",
    "unlink": f"{_PATH} EBUSY EIO EISDIR EPERM EROFS",
    "wait4": "ECHILD EINTR EINVAL",
    "waitid": "EBADF ECHILD EINTR EINVAL ESRCH",
    "write": "EAGAIN EBADF EDQUOT EFAULT EFBIG EINTR EINVAL EIO ENOSPC EPERM EPIPE",
}
_NAMES["faccessat"] = _NAMES["faccessat2"] = _NAMES["access"]
_NAMES["renameat"] = _NAMES["rename"] + " EBADF"
_NAMES["unlinkat"] = _NAMES["unlink"] + " EBADF EINVAL ENOTEMPTY"
_NAMES["sendto"] = _NAMES["sendmsg"]

# Calls that may do a part of what they were asked for.
_SHORT = ("read", "write", "recvfrom", "sendmsg")

ERRORS = {name: tuple(sorted({getattr(errno, one) for one in names.split()})) +
          ((SHORT,) if name in _SHORT else ()) for name, names in _NAMES.items()}

# Made by the daemon, and cannot fail, or only by arguments that are constants here.
WITHOUT_ERRORS = frozenset((
    "exit_group", "futex", "getpid", "getrandom", "madvise", "munmap", "rt_sigreturn", "sync",
    "restart_syscall", "rt_sigaction",
    "rt_sigprocmask"))

# Failures that are neither logged nor answered, each with the reason why nobody must know.
SILENT = {
    "brk": "libc takes memory elsewhere",
    "close": "the descriptor is gone all the same",
    "connect": "a refused connect is tried again on each pass, without a line; libc's log gives up",
    "fchmod": "a file whose permissions cannot be kept is written in place",
    "fchown": "a file whose owner cannot be kept is written in place",
    "fcntl": "a standard stream that is left close-on-exec",
    "fsync": "a folder or a device that cannot be synced",
    "getdents64": "a folder that goes away during a walk",
    "getpgid": "the process is signalled directly too",
    "getsockopt": "a clause is written without a wait for room; for a slow peer, see ioctl",
    "ioctl": "the output counts as read to its end; a slow peer's progress is what its socket takes",
    "kill": "a program that is gone already; the wait that follows sees its end",
    "lseek": "libc's streams work without",
    "mkdir": "a folder that is there already",
    "mmap": "libc takes memory elsewhere, or says that there is none",
    "mprotect": "libc takes memory elsewhere",
    "newfstatat": "libc's streams and its clock's zone work without",
    "openat": "files that need not be there: the zone, the resolver's, the LEDs', the reserve",
    "pidfd_open": "the end of a program is looked for every 10 ms instead",
    "poll": "the end of a program is looked for every 10 ms instead",
    "prlimit64": "libc's number of processors or descriptors",
    "read": "files that need not be there; a pipe counts as at its end",
    "readlinkat": "a path that is no link",
    "renameat": "a file that cannot be replaced is written in place; a folder that is made then",
    "sendto": "the log itself",
    "setsockopt": "the socket works without the option, or libc says so",
    "shutdown": "the peer has gone already",
    "socket": "the log's or the resolver's",
    "statfs": "libc's questions about a file system",
    "uname": "libc's resolver, and the prompt's host name",
    "unlink": "a file that need not be there",
    "unlinkat": "a file that need not be there",
    "wait4": "a program that is not there any more",
    "waitid": "a program that is not there any more",
    "write": "standard error's copy of the log",
    "nanosleep": "the wait is made again",
    "clock_nanosleep": "the wait is made again",
    "getcwd": "libc's",
    "faccessat": "a file that need not be there",
    "faccessat2": "a file that need not be there",
    "access": "a file that need not be there",
}

# The only errors of a kind in SILENT that may pass without a word, where not all may.
_REFUSED = frozenset((errno.EACCES, errno.ENOENT, errno.EPERM, errno.EROFS))
SILENT_ERRORS = {
    "fchmod": _REFUSED, "fchown": _REFUSED, "fsync": frozenset((errno.EINVAL, errno.EROFS)),
    "getdents64": frozenset((errno.ENOENT, errno.ENOTDIR)), "mkdir": frozenset((errno.EEXIST,)),
    "renameat": frozenset((errno.EBUSY, errno.ENOENT))}


def may_be_silent(name, error):
    """Whether a failure without a consequence may go without a word."""
    if error in (SHORT, errno.EINTR, errno.EAGAIN):
        return True  # the call is made again
    return name in SILENT and error in SILENT_ERRORS.get(name, (error,))
