"""Runs a program in a pseudo-terminal and interprets its screen."""
import fcntl
import functools
import os
import pty
import re
import selectors
import struct
import subprocess
import termios
import time

KEYS = {"tab": "\t", "enter": "\r", "up": "\033[A", "left": "\033[D", "ctrl-c": "\003", "ctrl-d": "\004", "ctrl-a": "\001",
        "ctrl-r": "\022", "backspace": "\177"}
SECONDS = 20


class Screen:
    """A terminal screen of unlimited height, with the control sequences of line editors. One column per character."""

    def __init__(self, columns):
        self.columns = columns
        self.lines = [""]
        self.row = self.column = 0

    def feed(self, text):
        for control, count, final, letter in re.findall(r"(\033\[([\d;?]*)([A-Za-z@])|\033[=>()][0-9A-Z]?)|(.)", text, re.S):
            if control:
                self._control(final, int(count) if count.isdigit() else 1, count)
            elif letter == "\r":
                self.column = 0
            elif letter == "\n":
                self._down(1)
            elif letter == "\b":
                self.column = max(0, self.column - 1)
            elif letter >= " ":
                self._put(letter)

    def _down(self, count):
        self.row += count
        self.lines += [""] * (self.row + 1 - len(self.lines))

    def _put(self, letter):
        if self.column == self.columns:
            self.column = 0
            self._down(1)
        line = self.lines[self.row].ljust(self.column)
        self.lines[self.row] = line[:self.column] + letter + line[self.column + 1:]
        self.column += 1

    def _control(self, final, count, raw):
        line = self.lines[self.row]
        if final == "A":
            self.row = max(0, self.row - count)
        elif final == "B":
            self._down(count)
        elif final == "C":
            self.column = min(self.columns - 1, self.column + count)
        elif final == "D":
            self.column = max(0, self.column - count)
        elif final == "G":
            self.column = count - 1
        elif final in "JK" and raw in ("", "0"):
            self.lines[self.row] = line[:self.column]
            if final == "J":
                del self.lines[self.row + 1:]
        elif final == "P":
            self.lines[self.row] = line[:self.column] + line[self.column + count:]
        elif final == "@":
            self.lines[self.row] = line[:self.column] + " " * count + line[self.column:]
        elif final not in "mhl":
            raise ValueError(f"no such control here: {raw}{final}")


class Terminal:
    """`start`: subprocess.Popen with a new session, or a callable with the same arguments."""

    def __init__(self, command, environment, columns=80, start=functools.partial(subprocess.Popen, start_new_session=True)):
        self._master, slave = pty.openpty()
        fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", 40, columns, 0, 0))
        self.screen = Screen(columns)
        environment = {"TERM": "xterm", "LC_ALL": "C.UTF-8", **environment}
        self.process = start(["env", *(f"{name}={value}" for name, value in environment.items()), *command],
                             stdin=slave, stdout=slave, stderr=slave,
                             preexec_fn=lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0))
        os.close(slave)

    def type(self, text, key="enter"):
        os.write(self._master, (text + KEYS.get(key, "")).encode())

    def wait(self, condition, seconds=SECONDS):
        """Reads until condition(lines of the screen, without trailing blanks) is true."""
        deadline = time.monotonic() + seconds
        with selectors.DefaultSelector() as selector:
            selector.register(self._master, selectors.EVENT_READ)
            while not condition(self.lines()):
                if not selector.select(max(0, deadline - time.monotonic())):
                    raise AssertionError("the screen shows:\n" + "\n".join(self.lines()))
                self._read()

    def wait_for(self, *last, seconds=SECONDS):
        """Waits until these are the last lines."""
        self.wait(lambda lines: lines[-len(last):] == list(last), seconds)

    def lines(self):
        return [line.rstrip() for line in self.screen.lines]

    def end(self, seconds=SECONDS):
        """Waits until the program exits; returns its exit status."""
        deadline = time.monotonic() + seconds
        while self._read() and time.monotonic() < deadline:
            pass
        return self.process.wait(seconds)

    def close(self):
        os.close(self._master)
        self.process.kill()
        self.process.wait()

    def _read(self):
        try:
            data = os.read(self._master, 65536)
        except OSError:  # the program has closed its end
            data = b""
        self.screen.feed(data.decode(errors="replace"))
        return bool(data)
