"""Kernel settings that a benchmark raises. They apply to all namespaces and are restored at the end."""
import contextlib
import os

RECEIVE_BUFFER = "net/core/rmem_default"


@contextlib.contextmanager
def raised(settings):
    """`settings`: name below /proc/sys -> value. Higher current values are kept."""
    before = {name: _read(name) for name in settings}
    try:
        for name, value in settings.items():
            if before[name] < value:
                _write(name, value)
        yield
    finally:
        for name, value in reversed(before.items()):
            _write(name, value)


def _read(name):
    with open(os.path.join("/proc/sys", name), encoding="ascii") as file:
        return int(file.read())


def _write(name, value):
    with open(os.path.join("/proc/sys", name), "w", encoding="ascii") as file:
        file.write(str(value))
