#!/usr/bin/python3
"""tools/check-subjects on a temporary repository: only commits after the list of areas are checked."""
import os
import subprocess
import tempfile
import unittest

TOOLS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../tools")


class CheckSubjects(unittest.TestCase):
    def setUp(self):
        self.root = self.enterContext(tempfile.TemporaryDirectory(prefix="sonarix-subjects-"))
        self.git("init", "-q")
        self.commit("no form at all")
        os.mkdir(os.path.join(self.root, "tools"))
        with open(os.path.join(self.root, "tools/commit-areas.txt"), "w", encoding="utf-8") as file:
            file.write("# areas\nmdns\nportico-gateway\n")
        self.git("add", "-A")
        self.commit("the list of areas")

    def git(self, *arguments):
        identity = ("-c", "user.name=test", "-c", "user.email=test@localhost")
        subprocess.run(["git", *identity, "-C", self.root, *arguments], check=True, capture_output=True)

    def commit(self, subject):
        self.git("commit", "-q", "--allow-empty", "-m", subject)

    def check(self, root=None):
        """Exit status, and the lines without the commit's number."""
        result = subprocess.run([os.path.join(TOOLS, "check-subjects"), root or self.root], capture_output=True, text=True,
                                check=False)
        self.assertEqual(result.stderr, "")
        return result.returncode, [line.partition(" ")[2] for line in result.stdout.splitlines()]

    def test_older_and_correct_commits_pass(self):
        self.assertEqual(self.check(), (0, []))
        self.commit("[mdns] resolve again after 1.15 s; update the docs")
        self.commit("[portico-gateway] re-read the peers file\n\nThe body has " + "long " * 20 + "lines.")
        self.commit("[mdns] " + "v" * 63 + " x")
        self.assertEqual(self.check(), (0, []))

    def test_each_offence_is_reported(self):
        subjects = {
            "resolve again": "not of the form [area] verb …",
            "[mdns]resolve again": "not of the form [area] verb …",
            "[mdns] resolve": "not of the form [area] verb …",
            "[Mdns] resolve again": "area Mdns is not in tools/commit-areas.txt",
            "[mdns] Resolve again": "Resolve is no verb",
            "[mdns] the second resolve": "the is no verb",
            "[mdns] " + "v" * 64 + " x": "73 characters, the limit is 72",
        }
        for subject in reversed(subjects):
            self.commit(subject)
        self.assertEqual(self.check(), (1, [f"{subject}: {offence}" for subject, offence in subjects.items()]))

    def test_shallow_clone_passes(self):
        self.commit("[Mdns] resolve again")
        with tempfile.TemporaryDirectory(prefix="sonarix-subjects-") as folder:
            self.git("clone", "-q", "--depth", "1", f"file://{self.root}", os.path.join(folder, "clone"))
            self.assertEqual(self.check(os.path.join(folder, "clone")), (0, []))


if __name__ == "__main__":
    unittest.main(verbosity=2)
