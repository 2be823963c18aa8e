"""The benches that are programs of their own. Each prints its figures as lines of name, value, unit and demand,
separated by tabs."""
import os

from .figures import of_program


def _program(name, *arguments):
    def run(options, say):
        program = os.path.join(options.bin_dir, "../bench", f"bench-{name}")
        if not os.access(program, os.X_OK):
            raise RuntimeError(f"needs {os.path.normpath(program)}: build first")
        rows = of_program(name, [program, *[argument.format(bin_dir=options.bin_dir) for argument in arguments]])
        say(f"{name}: {len(rows)} figures")
        return rows

    return run


BENCHES = {
    "connections": _program("connections", "{bin_dir}/portico-gateway", "1000"),
    "publish": _program("publish"),
    "micro": _program("micro"),
}
