"""The kernel's counters of a process. Reading them does not affect the process."""
import os


def cpu_seconds(pid):
    """CPU seconds of all existing threads, with nanosecond resolution."""
    total = 0
    for task in os.listdir(f"/proc/{pid}/task"):
        try:
            with open(f"/proc/{pid}/task/{task}/schedstat", encoding="ascii") as file:
                total += int(file.read().split()[0])
        except FileNotFoundError:
            pass  # the thread has ended
    return total / 1e9


def private_dirty(pid):
    """Private dirty memory in KiB."""
    with open(f"/proc/{pid}/smaps_rollup", encoding="ascii") as file:
        return sum(int(line.split()[1]) for line in file if line.startswith("Private_Dirty:"))


def peak_resident(pid):
    """Peak resident memory in KiB."""
    with open(f"/proc/{pid}/status", encoding="utf-8") as file:
        return next(int(line.split()[1]) for line in file if line.startswith("VmHWM:"))


def switches(pid):
    """Context switches: thread -> (voluntary, involuntary). A voluntary one is a sleep, followed by a wake-up."""
    counts = {}
    for task in os.listdir(f"/proc/{pid}/task"):
        with open(f"/proc/{pid}/task/{task}/status", encoding="utf-8") as file:
            fields = dict(line.rstrip("\n").split(":\t", 1) for line in file if ":\t" in line)
        counts[(fields["Name"], int(task))] = (int(fields["voluntary_ctxt_switches"]),
                                               int(fields["nonvoluntary_ctxt_switches"]))
    return counts


def switches_since(pid, before):
    """Differences: thread -> (voluntary, involuntary), only threads with a difference."""
    grown = {}
    for thread, (voluntary, involuntary) in switches(pid).items():
        old = before.get(thread, (0, 0))
        if (voluntary, involuntary) != old:
            grown[thread] = (voluntary - old[0], involuntary - old[1])
    return grown
