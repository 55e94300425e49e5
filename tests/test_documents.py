"""Every code block of the documents runs and prints what the document says.

A `python` block runs in a folder and a namespace that it shares with its document's other blocks; what it prints
is the `text` or `json` block that follows it, or nothing. A `console` block shows commands after "$ " and their
output, and runs where its tools are installed. `sh` blocks are for developers; only their presets are checked.
"""

import contextlib
import io
import itertools
import json
import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import unittest

from support import run_python

ROOT = pathlib.Path(__file__).resolve().parent.parent
PATHS = [*ROOT.glob("*.md"), *ROOT.glob("docs/*.md")]
DOCUMENTS = {path.relative_to(ROOT): path.read_text() for path in PATHS}
PERHAPS_MISSING = {"pandas", "duckdb"}


def blocks(document):
    return re.findall(r"^```(\w+)\n(.*?)^```$", document, re.MULTILINE | re.DOTALL)


def lines(text):
    return [line.rstrip() for line in text.strip("\n").split("\n")]


class Documents(unittest.TestCase):
    def run_python_block(self, code, names, shown_as, shown):
        printed = io.StringIO()
        try:
            with contextlib.redirect_stdout(printed):
                exec(compile(code, "<document>", "exec"), names)
        except ModuleNotFoundError as error:
            if error.name in PERHAPS_MISSING:
                self.skipTest(f"{error.name} is not installed")
            raise
        written, read = printed.getvalue(), shown if shown_as in ("text", "json") else ""
        comparable = lines if shown_as != "json" else lambda text: json.dumps(json.loads(text))
        self.assertEqual(comparable(written), comparable(read))

    def run_console_block(self, text):
        # Not the sanitizers' settings: the tools are no part of the test.
        kept = ("PATH", "LD_LIBRARY_PATH")
        environment = {"PATH": os.defpath, **{name: os.environ[name] for name in kept if name in os.environ}}
        for command, output in re.findall(r"^\$ (.*)\n((?:(?!\$ ).*\n)*)", text, re.MULTILINE):
            if not shutil.which(command.split()[0]):
                self.skipTest(f"{command.split()[0]} is not installed")
            done = subprocess.run(command, shell=True, capture_output=True, text=True, timeout=60,
                                  env=environment)
            self.assertEqual(lines(done.stdout + done.stderr), lines(output))

    def test_blocks(self):
        self.addCleanup(os.chdir, os.getcwd())
        for name, document in DOCUMENTS.items():
            names = {"__name__": "__main__"}
            with tempfile.TemporaryDirectory() as folder:
                os.chdir(folder)
                for (language, text), following in itertools.pairwise([*blocks(document), ("", "")]):
                    with self.subTest(document=str(name), block=text):
                        self.assertIn(language, ("python", "text", "json", "console", "sh"))
                        if language == "python":
                            self.run_python_block(text, names, *following)
                        elif language == "console":
                            self.run_console_block(text)
                os.chdir(ROOT)

    def test_readme_shows_the_example(self):
        """It runs as a program of its own, and once more: then its file is there, and refuses two inserts more."""
        example = (ROOT / "examples/inventory.py").read_text()
        readme = blocks(DOCUMENTS[pathlib.Path("README.md")])
        code, (_, shown) = next(pair for pair in itertools.pairwise(readme) if pair[0][0] == "python")
        self.assertEqual(code[1], example)
        with tempfile.TemporaryDirectory() as folder:
            first, again = (lines("\n".join(run_python(example, folder))) for _ in range(2))
        self.assertEqual((first, again[-len(first) + 2:]), (lines(shown), first[2:]))

    def test_presets_and_links_exist(self):
        workflows = json.loads((ROOT / "CMakePresets.json").read_text())["workflowPresets"]
        presets = {workflow["name"] for workflow in workflows}
        for name, document in DOCUMENTS.items():
            with self.subTest(document=str(name)):
                self.assertLessEqual(set(re.findall(r"cmake --workflow --preset (\w+)", document)), presets)
                for link in re.findall(r"\]\((?!\w+:)([^)#]+)", document):
                    self.assertTrue((ROOT / name.parent / link).exists(), link)
