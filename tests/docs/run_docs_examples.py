#!/usr/bin/env python3
# SPDX-License-Identifier: BSD-3-Clause
"""Runs every example of the documentation and fails when one fails or its shown output drifts.

Per page (docs/**/*.md), in the page's order, in a fresh folder that holds a copy of data/:
- a ```sh block runs in bash (-e, -o pipefail) with the built host first on PATH; every command
  of it starts with "quorvel " (continuation lines and comments aside), so that the docs only
  show what a user of the host types;
- a ```python block runs with the interpreter running this script, PYTHONPATH at the built
  package (skipped, and counted as such, when no package is given: builds without Python);
- a block whose info string holds "exit=N" (```sh exit=1) must exit with N: examples of errors;
- a ```sh block whose info string holds "needs=python" runs commands that use the package
  (quorvel catalog): skipped as a python block is, when no package is given;
- a ```json block whose info string names a file (```json file=NAME) is written to NAME, for the
  blocks after it (pipeline files);
- a ```text block right after a sh or python block (nothing but blank lines between) is output
  that the block must print: every non-empty line of it must be a line of what the block printed
  on standard output and standard error together (trailing blanks ignored). "..." inside a line
  stands for any text (times, file sizes); a line of only "..." marks lines left out.
Blocks of one page share the folder, so later blocks may read what earlier ones wrote.
Every relative link of a page must lead to a file that exists, and a "#anchor" to one of its
headings (GitHub's anchors: lower case, punctuation dropped, blanks as dashes).

Usage: run_docs_examples.py --quorvel PATH --source-dir DIR [--python-path DIR] [PAGE...]
"""
import argparse
import os
import re
import shutil
import subprocess
import sys
import tempfile
from dataclasses import dataclass
from pathlib import Path

FENCE = re.compile(r"^```(\S*)(.*)$")
TIMEOUT_S = 240


@dataclass
class Block:
    page: Path
    line: int  # 1-based line of the opening fence
    language: str
    info: str
    text: str
    expected: "Block | None" = None


def parse_blocks(page):
    """The fenced blocks of a page, each text block attached to the runnable block before it."""
    blocks, lines = [], page.read_text(encoding="utf-8").splitlines()
    i, between_is_blank = 0, False
    while i < len(lines):
        match = FENCE.match(lines[i])
        if not match:
            between_is_blank = between_is_blank and not lines[i].strip()
            i += 1
            continue
        start, body = i, []
        i += 1
        while i < len(lines) and not lines[i].startswith("```"):
            body.append(lines[i])
            i += 1
        if i == len(lines):
            raise SystemExit(f"{page}:{start + 1}: a fenced block is not closed")
        block = Block(page, start + 1, match.group(1), match.group(2).strip(), "\n".join(body) + "\n")
        previous = blocks[-1] if blocks else None
        if (block.language == "text" and between_is_blank and previous is not None
                and previous.language in ("sh", "python") and previous.expected is None):
            previous.expected = block
        else:
            blocks.append(block)
        between_is_blank = True
        i += 1
    return blocks


def commands_of(block):
    """The command lines of a sh block (comments and continuation lines left out)."""
    commands, continued = [], False
    for line in block.text.splitlines():
        stripped = line.strip()
        if not continued and stripped and not stripped.startswith("#"):
            commands.append(stripped)
        continued = stripped.endswith("\\")
    return commands


def expected_exit(block):
    """The exit status a block must end with: 0, or N of "exit=N" in its info string."""
    match = re.search(r"\bexit=(\d+)\b", block.info)
    return int(match.group(1)) if match else 0


def line_pattern(shown):
    parts = (re.escape(part) for part in shown.split("..."))
    return re.compile(".*".join(parts))


def missing_lines(expected, printed):
    """The lines of the text block that the printed output lacks."""
    got = [line.rstrip() for line in printed.splitlines()]
    missing = []
    for shown in expected.text.splitlines():
        shown = shown.rstrip()
        if not shown.strip() or shown.strip() == "...":
            continue
        pattern = line_pattern(shown)
        if not any(pattern.fullmatch(line) for line in got):
            missing.append(shown)
    return missing


LINK = re.compile(r"\]\(([^)\s]+)\)")


def anchor(heading):
    text = re.sub(r"[^\w\- ]", "", heading.strip().lower())
    return text.replace(" ", "-")


def anchors_of(page):
    lines, inside, found = page.read_text(encoding="utf-8").splitlines(), False, set()
    for line in lines:
        inside = inside != line.startswith("```")
        if not inside and line.startswith("#"):
            found.add(anchor(line.lstrip("#")))
    return found


def broken_links(page):
    """The relative links of a page that lead nowhere, as "target: why"."""
    broken = []
    for target in LINK.findall(page.read_text(encoding="utf-8")):
        if re.match(r"[a-z]+:", target):
            continue
        path, _, fragment = target.partition("#")
        linked = (page.parent / path).resolve() if path else page
        if not linked.exists():
            broken.append(f"{target}: no such file")
        elif fragment and linked.suffix == ".md" and fragment not in anchors_of(linked):
            broken.append(f"{target}: no heading #{fragment}")
    return broken


class Runner:
    def __init__(self, args):
        self.quorvel = Path(args.quorvel).resolve()
        self.python_path = args.python_path and str(Path(args.python_path).resolve())
        self.data = Path(args.source_dir).resolve() / "data"
        self.failures = []
        self.ran = 0
        self.skipped = 0

    def environment(self, folder):
        env = dict(os.environ)
        bin_dir = folder / ".bin"
        bin_dir.mkdir(exist_ok=True)
        link = bin_dir / "quorvel"
        if not link.exists():
            link.symlink_to(self.quorvel)
        env["PATH"] = f"{bin_dir}{os.pathsep}{env.get('PATH', '')}"
        if self.python_path:
            env["PYTHONPATH"] = self.python_path
        env.pop("QUORVEL_VERBOSE", None)
        return env

    def fail(self, block, problem):
        self.failures.append(f"{block.page}:{block.line}: {problem}")

    def command(self, block):
        if block.language == "sh":
            wrong = [c for c in commands_of(block) if not c.startswith("quorvel ")]
            if wrong:
                self.fail(block, f'a sh block runs only "quorvel ..." commands, not: {wrong[0]}')
                return None
            return ["bash", "-e", "-o", "pipefail", "-c", block.text]
        return [sys.executable, "-c", block.text]

    def run_block(self, block, folder):
        needs_python = block.language == "python" or "needs=python" in block.info.split()
        if needs_python and not self.python_path:
            self.skipped += 1
            return
        command = self.command(block)
        if command is None:
            return
        self.ran += 1
        try:
            done = subprocess.run(command, cwd=folder, env=self.environment(folder),
                                  stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                                  timeout=TIMEOUT_S)
        except subprocess.TimeoutExpired:
            self.fail(block, f"did not finish within {TIMEOUT_S} s")
            return
        wanted = expected_exit(block)
        if done.returncode != wanted:
            self.fail(block, f"exited with {done.returncode}, not {wanted}; it printed:\n"
                      f"{done.stdout}")
            return
        if block.expected is not None:
            missing = missing_lines(block.expected, done.stdout)
            if missing:
                shown = "\n".join(f"    {line}" for line in missing)
                self.fail(block, f"the output shown at line {block.expected.line} has lines the "
                          f"block did not print:\n{shown}\nit printed:\n{done.stdout}")

    def run_page(self, page):
        for link in broken_links(page):
            self.failures.append(f"{page}: broken link {link}")
        with tempfile.TemporaryDirectory(prefix="quorvel-docs-") as name:
            folder = Path(name)
            shutil.copytree(self.data, folder / "data")
            for block in parse_blocks(page):
                if block.language in ("sh", "python"):
                    self.run_block(block, folder)
                elif block.language == "json" and block.info.startswith("file="):
                    (folder / block.info[len("file="):]).write_text(block.text, encoding="utf-8")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--quorvel", required=True, help="the built host")
    parser.add_argument("--python-path", help="the folder of the built package")
    parser.add_argument("--source-dir", required=True, help="the repository root")
    parser.add_argument("pages", nargs="*", help="pages to run (default: every page of docs/)")
    args = parser.parse_args()
    pages = [Path(p) for p in args.pages] or sorted((Path(args.source_dir) / "docs").rglob("*.md"))
    runner = Runner(args)
    for page in pages:
        runner.run_page(page)
    for failure in runner.failures:
        print(failure, file=sys.stderr)
    print(f"{runner.ran} blocks of {len(pages)} pages run, {len(runner.failures)} failed, "
          f"{runner.skipped} Python blocks skipped")
    return 1 if runner.failures else 0


if __name__ == "__main__":
    sys.exit(main())
