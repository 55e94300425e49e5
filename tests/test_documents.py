"""Every code block of the documents runs and prints what the document says; `sh` blocks don't run."""

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
DOCUMENTS = {path: path.read_text() for path in [*ROOT.glob("*.md"), *ROOT.glob("docs/*.md")]}


def blocks(document):
    return re.findall(r"^```(\w+)\n(.*?)^```$", document, re.MULTILINE | re.DOTALL)


def lines(text):
    return [line.rstrip() for line in text.strip("\n").split("\n")]


class Documents(unittest.TestCase):
    # It runs in a folder and a namespace that it shares with its document's other blocks. What it prints is
    # the `text` or `json` block that follows it, or nothing.
    def run_python_block(self, code, names, shown_as, shown):
        try:
            with contextlib.redirect_stdout(io.StringIO()) as printed:
                exec(compile(code, "<document>", "exec"), names)
        except ModuleNotFoundError as error:
            if error.name in ("pandas", "duckdb"):
                self.skipTest(f"{error.name} is not installed")
            raise
        if shown_as == "json":
            self.assertEqual(json.dumps(json.loads(printed.getvalue())), json.dumps(json.loads(shown)))
        else:
            self.assertEqual(lines(printed.getvalue()), lines(shown if shown_as == "text" else ""))

    # It shows commands after "$ " and their output, and runs where its tools are installed.
    def run_console_block(self, text):
        # Not the sanitizers' settings: the tools are no part of the test.
        environment = {name: os.environ[name] for name in ("PATH", "LD_LIBRARY_PATH") if name in os.environ}
        for command, output in re.findall(r"^\$ (.*)\n((?:(?!\$ ).*\n)*)", text, re.MULTILINE):
            if not shutil.which(command.split()[0]):
                self.skipTest(f"{command.split()[0]} is not installed")
            done = subprocess.run(command, shell=True, capture_output=True, text=True, env=environment)
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

    def test_readme_shows_the_example(self):
        (_, shown), *_ = blocks(DOCUMENTS[ROOT / "README.md"])
        self.assertEqual(shown, (ROOT / "examples/inventory.py").read_text())
        with tempfile.TemporaryDirectory() as folder:
            run_python(shown, folder)
            run_python(shown, folder)  # its file is there now

    def test_presets_and_links_exist(self):
        presets = json.loads((ROOT / "CMakePresets.json").read_text())["workflowPresets"]
        names = {preset["name"] for preset in presets}
        for name, document in DOCUMENTS.items():
            with self.subTest(document=str(name)):
                self.assertLessEqual(set(re.findall(r"cmake --workflow --preset (\w+)", document)), names)
                for link in re.findall(r"\]\((?!\w+:)([^)#]+)", document):
                    self.assertTrue((name.parent / link).exists(), link)
