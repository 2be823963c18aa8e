"""What the kernel counts for a process. All of it is read from outside and costs the process nothing."""
import os


def cpu_seconds(pid):
    """Processor time of all threads that live, to the nanosecond."""
    total = 0
    for task in os.listdir(f"/proc/{pid}/task"):
        try:
            with open(f"/proc/{pid}/task/{task}/schedstat", encoding="ascii") as file:
                total += int(file.read().split()[0])
        except FileNotFoundError:
            pass  # a thread that ended meanwhile
    return total / 1e9


def private_dirty(pid):
    """KiB that the process alone has written to."""
    with open(f"/proc/{pid}/smaps_rollup", encoding="ascii") as file:
        return sum(int(line.split()[1]) for line in file if line.startswith("Private_Dirty:"))


def peak_resident(pid):
    """KiB: the most that has ever been resident."""
    with open(f"/proc/{pid}/status", encoding="utf-8") as file:
        return next(int(line.split()[1]) for line in file if line.startswith("VmHWM:"))


def switches(pid):
    """thread -> (voluntary, involuntary). A voluntary one is a sleep, and so has a wake-up to come."""
    counts = {}
    for task in os.listdir(f"/proc/{pid}/task"):
        with open(f"/proc/{pid}/task/{task}/status", encoding="utf-8") as file:
            fields = dict(line.rstrip("\n").split(":\t", 1) for line in file if ":\t" in line)
        counts[(fields["Name"], int(task))] = (int(fields["voluntary_ctxt_switches"]),
                                               int(fields["nonvoluntary_ctxt_switches"]))
    return counts


def switches_since(pid, before):
    """thread -> (voluntary, involuntary), of those that have any."""
    grown = {}
    for thread, (voluntary, involuntary) in switches(pid).items():
        old = before.get(thread, (0, 0))
        if (voluntary, involuntary) != old:
            grown[thread] = (voluntary - old[0], involuntary - old[1])
    return grown
