#!/usr/bin/python3
"""tools/check-layers on a small tree: the correct tree passes, and each kind of offence is reported."""
import os
import subprocess
import tempfile
import unittest

CHECK = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../tools/check-layers")

CMAKE = """
set(SONARIX_ENGINE low CACHE STRING "The replaceable library") # a product may choose another one
sonarix_library(low src/low REPLACEABLE LINKS Threads::Threads)
sonarix_library(hidden src/hidden LINKS ${SONARIX_ENGINE})
sonarix_library(middle src/middle
    LINKS ${SONARIX_ENGINE} PRIVATE hidden nlohmann_json::nlohmann_json)
sonarix_library(high src/high LINKS middle)
sonarix_library(apart src/apart)
sonarix_library(fakes tests/fakes LINKS high)
sonarix_test(high-test tests/high LINKS fakes)
sonarix_library(tool tools/tool LINKS ${SONARIX_ENGINE})
"""
FUZZ = "sonarix_fuzzer(high-fuzz SOURCES Fuzz.cpp ../src/high/High.cpp LINKS fakes)\n"

SOURCES = {
    "CMakeLists.txt": CMAKE,
    "fuzz/CMakeLists.txt": FUZZ,
    "src/low/Low.h": "#pragma once\n#include <string>\n",
    "src/low/Record.proto": 'import "google/protobuf/descriptor.proto";\n',
    "src/low/Low.cpp": '#include "low/Low.h"\n',
    "src/hidden/Hidden.h": "#include <Low.h>\n",
    "src/hidden/Hidden.proto": 'import "Record.proto";\n',
    "src/middle/Middle.cpp": '#include "hidden/Hidden.h"\n#include "hidden/Hidden.pb.h"\n#include <Low.h>\n#include <Record.pb.h>\n',
    "src/middle/Middle.h": "",
    "src/middle/MiddleIF.h": "",
    "src/high/High.cpp": '#include "high/High.h"\n#include "middle/Middle.h"\n#include <Low.h>\n',
    "src/high/High.h": "",
    "src/apart/Apart.h": "",
    "tests/fakes/FakeMiddle.h": '#include "middle/MiddleIF.h"\n',
    "tests/high/HighTest.cpp": '#include "high/High.h"\n#include "tests/fakes/FakeMiddle.h"\n#include "low/Low.h"\n',
    "tools/tool/Tool.cpp": '#include "tools/tool/Tool.h"\n',
    "tools/tool/Tool.h": "#include <Low.h>\n",
}


def check(sources):
    """Exit status, lines and errors of the check of a tree of these files."""
    with tempfile.TemporaryDirectory() as root:
        for path, text in sources.items():
            os.makedirs(os.path.dirname(os.path.join(root, path)), exist_ok=True)
            with open(os.path.join(root, path), "w", encoding="utf-8") as file:
                file.write(text)
        result = subprocess.run([CHECK, root], capture_output=True, text=True, check=False)
    return result.returncode, [line.replace(root, "ROOT") for line in result.stdout.splitlines()], result.stderr


class CheckLayers(unittest.TestCase):
    def test_correct_tree_passes(self):
        self.assertEqual(check(SOURCES), (0, [], ""))

    def test_each_kind_of_offence_is_reported_once(self):
        for path, text, offence in (
                ("src/middle/Middle.h", '\n#include "high/High.h"\n', ":2: high/High.h: does not link high"),
                ("src/high/High.h", '#include "hidden/Hidden.h"\n', ":1: hidden/Hidden.h: does not link hidden"),  # PRIVATE
                ("src/hidden/Hidden.h", '# include "apart/Apart.h"\n', ":1: apart/Apart.h: does not link apart"),
                ("tools/tool/Tool.h", '#include "high/High.h"\n', ":1: high/High.h: does not link high"),
                ("tools/tool/Tool.h", '#include "tests/fakes/FakeMiddle.h"\n',
                 ":1: tests/fakes/FakeMiddle.h: does not link fakes"),
                ("src/apart/Apart.h", "#include <Low.h>\n", ":1: Low.h: does not link low"),
                ("src/apart/Apart.proto", 'import "Record.proto";\n', ":1: Record.pb.h: does not link low"),
                ("src/hidden/Hidden.h", '#include "low/Low.h"\n',
                 ":1: low/Low.h: of a replaceable library, include it as <Low.h>"),
                ("src/high/High.cpp", '#include "high/Gone.h"\n', ":1: high/Gone.h: no such header"),
                ("src/high/High.cpp", '#include "High.h"\n', ":1: High.h: no such header"),  # no path
                ("src/high/High.cpp", '#include "tools/tool/Tool.h"\n', ":1: tools/tool/Tool.h: no such header"),
                ("tests/fakes/FakeMiddle.h", '#include "middle/Middle.h"\n',
                 ":1: middle/Middle.h: a fake includes interfaces, not classes"),
                ("bench/Stray.cpp", "", ": belongs to no target")):
            with self.subTest(path=path, text=text):
                self.assertEqual(check({**SOURCES, path: text}), (1, [path + offence], ""))

    def test_headers_of_a_foreign_replaceable_library_are_known(self):
        foreign = CMAKE.replace("SONARIX_ENGINE low", "SONARIX_ENGINE product::engine")
        self.assertEqual(check({**SOURCES, "CMakeLists.txt": foreign}), (0, [], ""))
        unlinked = foreign.replace("src/hidden LINKS ${SONARIX_ENGINE}", "src/hidden")
        self.assertEqual(check({**SOURCES, "CMakeLists.txt": unlinked}),
                         (1, ["src/hidden/Hidden.h:1: Low.h: does not link low",
                              "src/hidden/Hidden.proto:1: Record.pb.h: does not link low"], ""))

    def test_empty_tree_is_an_offence(self):
        self.assertEqual(check({"CMakeLists.txt": CMAKE}), (1, ["ROOT: no sources"], ""))


if __name__ == "__main__":
    unittest.main(verbosity=2)
