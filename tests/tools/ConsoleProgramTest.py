#!/usr/bin/python3
"""sonarix-console with a scripted service: on a terminal, with a pipe, and with commands as arguments.
Usage: ConsoleProgramTest.py BIN_DIR
"""
import json
import os
import signal
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.realpath(__file__)), "../support"))

from localservice import LocalService  # noqa: E402
from terminal import SECONDS, Terminal  # noqa: E402

BIN_DIR = sys.argv.pop(1) if len(sys.argv) > 1 else "build/release/bin"
PROGRAM = os.path.join(BIN_DIR, "sonarix-console")
COMMANDS = [{"command": "lamp on", "help": "Lights it", "usage": "lamp on [room= colour=red)]"},
            {"command": "lamp off", "help": "Puts it out", "usage": "lamp off"},
            {"command": "list", "help": "Lists them", "usage": "list"}]


class Service(LocalService):
    """Echoes commands. "wrong" gets an error, "silent" no response; "gone" closes the connection."""

    def say(self, line):
        self.send((line if isinstance(line, bytes) else json.dumps(line).encode()) + b"\n")

    def serve(self, stream):
        for line in stream:
            request = json.loads(line)
            self.asked.put(request)
            if "help" in request:
                words = request["help"].strip()
                found = [command for command in COMMANDS if command["command"].startswith(words)]
                self.say({"ok": True, "response": "", "commands": found})
            elif request["command"] == "gone":
                return
            elif request["command"] != "silent":
                self.say({"ok": request["command"] != "wrong", "response": "said " + request["command"]})


class Case(unittest.TestCase):
    def setUp(self):
        folder = self.enterContext(tempfile.TemporaryDirectory(prefix="sonarix-console-"))
        self.environment = {"SONARIX_RUN_DIR": folder, "HOME": folder}
        self.service = Service(folder, "console")

    def run_program(self, *arguments, text="", **options):
        return subprocess.run([PROGRAM, *arguments], input=text, capture_output=True, text=True, timeout=SECONDS,
                              env={**os.environ, **self.environment}, check=False, **options)

    def terminal(self, columns=80):
        terminal = Terminal([PROGRAM], self.environment, columns)
        self.addCleanup(terminal.close)
        terminal.wait(lambda lines: lines[-1] == ">")
        return terminal


class CommandLine(Case):
    def test_one_command(self):
        for words, asked in ((["lamp on"], "lamp on"), (["lamp", "on"], "lamp on"),
                             (["lamp", "name=Living Room", 'a"b\\'], 'lamp "name=Living Room" "a\\"b\\\\"')):
            result = self.run_program(*words)
            self.assertEqual((result.returncode, result.stdout, result.stderr), (0, f"said {asked}\n", ""))
        result = self.run_program("wrong")
        self.assertEqual((result.returncode, result.stdout, result.stderr), (1, "", "said wrong\n"))
        result = self.run_program("--json", "wrong")
        self.assertEqual((result.returncode, json.loads(result.stdout)), (1, {"ok": False, "response": "said wrong"}))
        result = self.run_program("--", "--json")
        self.assertEqual((result.returncode, result.stdout), (0, "said --json\n"))
        result = self.run_program("gone")
        self.assertEqual((result.returncode, result.stdout), (3, ""))
        self.assertIn("went before it answered", result.stderr)

    def test_statuses_and_texts_without_a_service(self):
        self.service.close()
        result = self.run_program("list")
        self.assertEqual((result.returncode, result.stdout), (3, ""))
        self.assertIn(f"no service at {self.service.path}", result.stderr)
        self.assertEqual(self.run_program("--jsn").returncode, 2)
        self.assertEqual(self.run_program("--js").stderr, "sonarix-console: unknown option --js (see sonarix-console --help)\n")
        for option in ("--version", "-V"):
            self.assertRegex(self.run_program(option).stdout, r"^sonarix-console \d")
        usage = self.run_program("--help").stdout
        for option in ("-h", "-hV", "-Vh", "-hh"):
            self.assertEqual(self.run_program(option).stdout, usage)
        self.assertIn("unknown option -hx", self.run_program("-hx").stderr)
        for line in usage.splitlines():  # the help has an example of each command
            if line.startswith("  sonarix "):
                self.assertIn(" ".join(line.split()[:3]), usage.partition("Examples:")[2])
        with open("/dev/full", "w", encoding="utf-8") as full:
            self.assertEqual(subprocess.run([PROGRAM, "--help"], stdout=full, stderr=subprocess.DEVNULL,
                                            check=False).returncode, 1)

    def test_commands_of_a_pipe(self):
        result = self.run_program(text="# first\n\n  list  \nwrong\nlamp off")
        self.assertEqual((result.returncode, result.stdout, result.stderr),
                         (1, "said list\nsaid lamp off\n", "said wrong\n"))
        result = self.run_program(text="list\ngone\nlist\n")
        self.assertEqual((result.returncode, result.stdout), (3, "said list\n"))
        result = self.run_program(text="help lamp\nhelp list\nhelp tea\n")
        self.assertEqual(result.stdout, "lamp on   Lights it\nlamp off  Puts it out\n"
                                        "list: Lists them\nUsage: list\nno command begins so\n")

    def test_control_characters_do_not_reach_the_terminal(self):
        process = subprocess.Popen([PROGRAM, "silent"], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                   env={**os.environ, **self.environment})
        self.service.expect({"command": "silent"})
        for line in (b"\xff\xfe", b"[]", b"{}", b"x" * 1_000_000, {"ok": 1, "response": "no"}, {"async": "\033[2Jby itself"}):
            self.service.say(line)
        self.service.say({"ok": True, "response": "a\033]0;x\007b\u009bc\ttext"})
        out, err = process.communicate(timeout=SECONDS)
        self.assertEqual((process.returncode, out, err), (0, b"a?]0;x?b?c?text\n", b"?[2Jby itself\n"))


class OnATerminal(Case):
    def test_responses_history_and_end(self):
        terminal = self.terminal()
        self.assertEqual(terminal.lines()[0], '"help" lists the commands, Tab completes them, Ctrl-D ends.')
        terminal.type("list")
        terminal.wait_for("> list", "said list", ">")
        terminal.type("wrong")
        terminal.wait_for("> wrong", "said wrong", ">")
        terminal.type("abandoned", None)
        terminal.wait_for("> abandoned")
        terminal.type("", "ctrl-c")
        terminal.wait_for("> abandoned^C", ">")
        terminal.type("", "up")
        terminal.type("", "up")
        terminal.wait_for("> list")
        terminal.type("")
        terminal.wait_for("> list", "said list", ">")
        terminal.type("silent")
        self.service.expect({"command": "silent"})
        terminal.type("", "ctrl-c")
        terminal.wait(lambda lines: lines[-2:] == ["sonarix-console: not waiting for the answer any more", ">"])
        terminal.type("K\u00fcche")
        terminal.wait_for("> K\u00fcche", "said K\u00fcche", ">")
        terminal.type("", "ctrl-d")
        self.assertEqual(terminal.end(), 0)

        later = self.terminal()
        later.type("li", "ctrl-r")
        later.type("st", None)
        later.wait_for("> list", "bck:st")
        later.type("", "ctrl-c")
        later.type("quit")
        self.assertEqual(later.end(), 0)
        self.assertEqual(os.stat(self.environment["HOME"] + "/.sonarix_console_history").st_mode & 0o777, 0o600)

    def test_completion(self):
        terminal = self.terminal()
        terminal.type("LA", "tab")
        terminal.type("", "tab")
        terminal.wait_for("> LAmp o")
        terminal.type("", "tab")
        terminal.wait_for("off  on", "> LAmp o")
        terminal.type("n", "tab")
        terminal.type("", "tab")
        terminal.wait_for("colour=  room=", "> LAmp on")
        terminal.type("r", "tab")
        terminal.wait_for("> LAmp on room=")
        terminal.type("x ", "tab")
        terminal.wait_for("> LAmp on room=x colour=")
        terminal.type("", "ctrl-c")
        terminal.type("hel", "tab")
        terminal.type("li", "tab")
        terminal.wait_for("> help list")
        terminal.type("")
        terminal.wait_for("list: Lists them", "Usage: list", ">")

    def test_async_text_keeps_the_edited_line(self):
        terminal = self.terminal(columns=40)
        terminal.type("short", None)
        terminal.wait_for("> short")
        self.service.say({"async": "first\nsecond"})
        terminal.wait_for("first", "second", "> short")
        typed = "long " * 18
        terminal.type(typed, None)
        whole = ["> short" + typed[:33], typed[33:73], typed[73:].rstrip()]
        terminal.wait_for(*whole)
        self.service.say({"async": "third"})
        terminal.wait_for("second", "third", *whole)
        terminal.type("", "ctrl-a")
        self.service.say({"async": "fourth"})
        terminal.wait_for("third", "fourth", *whole)
        terminal.type("very ", None)
        terminal.wait(lambda lines: lines[-3].startswith("> very short"))
        terminal.type("")
        self.service.expect({"command": "very short" + typed.rstrip()})
        terminal.wait(lambda lines: lines[-1] == ">")
        os.kill(terminal.process.pid, signal.SIGTERM)
        self.assertEqual(terminal.end(), 0)

    def test_reconnects_after_a_restart_of_the_service(self):
        terminal = self.terminal()
        self.service.close()
        terminal.wait_for("sonarix-console: the service has gone; the next command looks for it again", ">")
        terminal.type("list")
        terminal.wait(lambda lines: lines[-1] == ">" and "no service at" in "".join(lines[-4:]))
        self.service.open()
        terminal.type("list")
        terminal.wait_for("> list", "said list", ">")


if __name__ == "__main__":
    unittest.main(verbosity=2)
