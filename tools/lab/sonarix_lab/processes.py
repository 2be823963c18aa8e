"""Which processes belong to a laboratory, and how they end."""
import os
import select
import signal
import time

#: Every process of a laboratory carries this variable, with the laboratory's own value.
MARK = "SONARIX_LAB"

_KILL_ROUNDS = 20
_KILL_WAIT_SECONDS = 5


def start_time(pid):
    """The kernel's start time of a process, which with its pid names it for good; None once it has ended."""
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
    """The pids of a laboratory: what carries its mark, what it recorded, and what lives in its namespaces with these.

    `recorded` holds (pid, start time); a pid that now is another process does not count. A daemon that changes its
    user may have lost its environment, a helper that it started was never recorded: the namespace has them both.
    A namespace in which nothing of the laboratory lives any more may be another's by now, and does not count.
    """
    pids = [int(name) for name in os.listdir("/proc") if name.isdigit()]
    own = {pid for pid in pids if _carries(pid, mark)}
    own |= {pid for pid, started in recorded if start_time(pid) == started}
    alive = {network_namespace(pid) for pid in own} & set(namespaces)
    own |= {pid for pid in pids if network_namespace(pid) in alive}
    return own - {os.getpid()}


def kill_all(mark, recorded, namespaces):
    """Ends every process of a laboratory by signal 9 and waits for their end. Returns how many there were."""
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
