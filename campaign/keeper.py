"""A process that outlives the one that works, for as long as it takes to end what that has started."""

import ctypes
import os
import signal
import sys
from collections.abc import Callable

PR_SET_PDEATHSIG, PR_SET_CHILD_SUBREAPER = 1, 36
SI_KERNEL = 0x80  # a terminal's: everybody in front of it has got it
HANDED_ON = {signal.SIGINT, signal.SIGTERM, signal.SIGHUP}


def prctl(option: int, value: int) -> None:
    ctypes.CDLL(None, use_errno=True).prctl(option, value, 0, 0, 0)


def with_keeper(work: Callable[[], int]) -> int:
    """What `work` gives, in a child of this process. When this one is killed, the child gets SIGTERM."""
    prctl(PR_SET_CHILD_SUBREAPER, 1)
    for stream in (sys.stdout, sys.stderr):
        if stream is not None:
            stream.flush()
    before = signal.pthread_sigmask(signal.SIG_BLOCK, HANDED_ON | {signal.SIGCHLD})
    keeper = os.getpid()
    worker = os.fork()
    if worker == 0:
        prctl(PR_SET_PDEATHSIG, signal.SIGTERM)
        signal.pthread_sigmask(signal.SIG_SETMASK, before)
        return work() if os.getppid() == keeper else 128 + signal.SIGKILL
    status = status_of(worker)
    if status < 0:
        from campaign.run import end_children

        end_children()
    return status if status >= 0 else 128 - status


def status_of(worker: int) -> int:
    """Its exit status, or minus the signal that has ended it. It gets the signals of this process meanwhile."""
    while True:
        ended, status = os.waitpid(worker, os.WNOHANG)
        if ended:
            return os.waitstatus_to_exitcode(status)
        told = signal.sigwaitinfo(HANDED_ON | {signal.SIGCHLD})
        if told.si_signo in HANDED_ON and told.si_code != SI_KERNEL:
            os.kill(worker, told.si_signo)
