# SPDX-License-Identifier: Apache-2.0
"""System calls that a child process does without."""
import ctypes
import struct

OPENAT2 = 437  # on all architectures

PR_SET_SECCOMP, PR_SET_NO_NEW_PRIVS = 22, 38
SECCOMP_MODE_FILTER = 2
SECCOMP_RET_ERRNO, SECCOMP_RET_ALLOW = 0x00050000, 0x7FFF0000
LOAD_WORD, JUMP_IF_EQUAL, RETURN = 0x20, 0x15, 0x06


class Program(ctypes.Structure):
    _fields_ = [("length", ctypes.c_ushort), ("filter", ctypes.c_char_p)]


def refuse(number, error):
    """Lets the system call @p number fail with @p error, in this process and its children."""
    steps = [(LOAD_WORD, 0, 0, 0), (JUMP_IF_EQUAL, 0, 1, number),
             (RETURN, 0, 0, SECCOMP_RET_ERRNO | error), (RETURN, 0, 0, SECCOMP_RET_ALLOW)]
    program = Program(len(steps), b"".join(struct.pack("HBBI", *step) for step in steps))
    libc = ctypes.CDLL(None, use_errno=True)
    for arguments in ((PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0),
                      (PR_SET_SECCOMP, SECCOMP_MODE_FILTER, ctypes.byref(program), 0, 0)):
        if libc.prctl(*arguments) != 0:
            raise OSError(ctypes.get_errno(), "prctl")
