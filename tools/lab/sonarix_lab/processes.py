"""Finds and kills the processes of a laboratory."""
import os
import select
import signal
import time

#: Environment variable of every process of a laboratory. The value identifies the laboratory.
MARK = "SONARIX_LAB"

_KILL_ROUNDS = 20
_KILL_WAIT_SECONDS = 5


def start_time(pid):
    """The kernel's start time of a process, unique together with the pid. None if the process ended."""
    try:
        with open(f"/proc/{pid}/stat", "rb") as file:
            fields = file.read().rpartition(b")")[2].split()
    except OSError:
        return None
    return int(fields[19]) if len(fields) > 19 and fields[0] not in (b"Z", b"X") else None


def network_namespace(pid):
    try:
        return os.readlink(f"/proc/{pid}/ns/net")
    except OSError:
        return None


def _carries(pid, mark):
    try:
        with open(f"/proc/{pid}/environ", "rb") as file:
            return f"{MARK}={mark}".encode() in file.read().split(b"\0")
    except OSError:
        return False


def find(mark, recorded, namespaces):
    """The pids of a laboratory: processes with its mark, recorded processes, and others in the namespaces of these.

    `recorded` contains (pid, start time), so a reused pid is ignored. A daemon that changes its user may lose its
    environment, and its helpers are not recorded; the namespace identifies both. A namespace without a process of
    the laboratory is ignored, because its number may have been reused.
    """
    pids = [int(name) for name in os.listdir("/proc") if name.isdigit()]
    own = {pid for pid in pids if _carries(pid, mark)}
    own |= {pid for pid, started in recorded if start_time(pid) == started}
    alive = {network_namespace(pid) for pid in own} & set(namespaces)
    own |= {pid for pid in pids if network_namespace(pid) in alive}
    return own - {os.getpid()}


def kill_all(mark, recorded, namespaces):
    """Kills every process of a laboratory with signal 9 and waits for their end. Returns the number of processes."""
    count = 0
    for _ in range(_KILL_ROUNDS):
        pids = find(mark, recorded, namespaces)
        if not pids:
            break
        descriptors = []
        for pid in pids:
            try:
                descriptor = os.pidfd_open(pid)
            except ProcessLookupError:
                continue
            descriptors.append(descriptor)
            try:
                signal.pidfd_send_signal(descriptor, signal.SIGKILL)
                count += 1
            except ProcessLookupError:
                pass
        _wait_for(descriptors)
    return count


def _wait_for(descriptors):
    poll = select.poll()
    for descriptor in descriptors:
        poll.register(descriptor, select.POLLIN)
    waiting, deadline = set(descriptors), time.monotonic() + _KILL_WAIT_SECONDS
    while waiting and time.monotonic() < deadline:
        for descriptor, _ in poll.poll(1000):
            poll.unregister(descriptor)
            waiting.discard(descriptor)
    for descriptor in descriptors:
        os.close(descriptor)
