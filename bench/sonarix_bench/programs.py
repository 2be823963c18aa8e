"""Benchmarks that are separate programs. They print lines of name, value, unit and limit, separated by tabs."""
import os

from .figures import of_program


def _program(name, *arguments):
    def run(options, say):
        program = os.path.normpath(os.path.join(options.bin_dir, "../bench", f"bench-{name}"))
        if not os.access(program, os.X_OK):
            raise RuntimeError(f"needs {program}: build first")
        gateway = os.path.join(options.bin_dir, "portico-gateway")
        return of_program(name, [program, *[argument.format(gateway=gateway) for argument in arguments]], say)

    return run


BENCHES = {
    "connections": _program("connections", "{gateway}", "1000"),
    "publish": _program("publish", "{gateway}"),
    "micro": _program("micro"),
    "ipc": _program("ipc"),
}
