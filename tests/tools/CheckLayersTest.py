#!/usr/bin/python3
"""tools/check-layers on a small tree: what it lets pass, and what it reports."""
import os
import subprocess
import tempfile
import unittest

CHECK = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../tools/check-layers")

CMAKE = """
set(ENGINE low CACHE STRING "The replaceable one") # by another engine
sonarix_library(low src/low LINKS Threads::Threads)
sonarix_library(hidden src/hidden LINKS low)
sonarix_library(middle src/middle
    LINKS ${ENGINE} PRIVATE hidden nlohmann_json::nlohmann_json)
sonarix_library(high src/high LINKS middle)
"""

SOURCES = {
    "src/low/Low.h": "#pragma once\n#include <string>\n",
    "src/low/Record.proto": 'import "google/protobuf/descriptor.proto";\n',
    "src/hidden/Hidden.h": '#include "Low.h"\n',
    "src/middle/Middle.cpp": '#include "Low.h"\n#include "Record.pb.h"\n#include "Hidden.h"\n',
    "src/middle/Middle.h": "",
    "src/high/High.cpp": '#include "Middle.h"\n#include "Low.h"\n',
}


class CheckLayers(unittest.TestCase):
    def test_offences_alone_are_reported(self):
        for changes, *lines in (
            ({},),
            ({"src/low/Low.h": '\n#include "Middle.h"\n'},
             "src/low/Low.h:2: Middle.h: src/low does not link src/middle"),
            ({"src/low/Low.h": "# include <Middle.h>\n"},
             "src/low/Low.h:1: Middle.h: src/low does not link src/middle"),
            ({"src/hidden/Hidden.proto": 'import "Other.proto";', "src/high/Other.proto": ""},
             "src/hidden/Hidden.proto:1: Other.pb.h: src/hidden does not link src/high"),
            ({"src/high/High.cpp": '#include "Hidden.h"\n'},  # linked PRIVATE, by another folder
             "src/high/High.cpp:1: Hidden.h: src/high does not link src/hidden"),
            ({"src/high/High.cpp": '#include "Gone.h"\n'}, "src/high/High.cpp:1: Gone.h: no such header under src/"),
            ({"src/stray/Stray.cpp": ""}, "src/stray/Stray.cpp: belongs to no sonarix_library"),
            ({"CMakeLists.txt": CMAKE.replace("(ENGINE low", "(ENGINE product::engine").replace("LINKS low", "LINKS"),
              "src/hidden/Hidden.h": '#include "Low.h"\n'},  # which does not link the product's engine
             "src/hidden/Hidden.h:1: Low.h: src/hidden does not link src/low"),
        ):
            with tempfile.TemporaryDirectory() as root:
                for path, text in {"CMakeLists.txt": CMAKE, **SOURCES, **changes}.items():
                    os.makedirs(os.path.dirname(os.path.join(root, path)), exist_ok=True)
                    with open(os.path.join(root, path), "w", encoding="utf-8") as file:
                        file.write(text)
                result = subprocess.run([CHECK, root], capture_output=True, text=True, check=False)
            self.assertEqual((result.returncode, result.stdout.splitlines(), result.stderr),
                             (1 if lines else 0, lines, ""))


if __name__ == "__main__":
    unittest.main(verbosity=2)
