# SPDX-License-Identifier: BSD-3-Clause
"""The docs checker catches what it is there for: a failing example, output that drifted from the
page, a command that is not the host's, and output blocks that belong to no command."""
import subprocess
import sys
from pathlib import Path

import pytest

SCRIPT = Path(__file__).with_name("run_docs_examples.py")
sys.path.insert(0, str(SCRIPT.parent))
import run_docs_examples as checker  # noqa: E402

# A stand-in host: prints its arguments, and fails for "fail".
FAKE_HOST = """#!/bin/sh
[ "$1" = fail ] && { echo "quorvel: error: asked to fail" >&2; exit 1; }
echo "args: $*"
echo "took 0.123 s" >&2
"""


def page(tmp_path, text):
    path = tmp_path / "page.md"
    path.write_text(text)
    return path


def run(tmp_path, text):
    source = tmp_path / "source"
    (source / "data").mkdir(parents=True, exist_ok=True)
    (source / "data" / "a.las").write_text("points")
    host = tmp_path / "host"
    host.write_text(FAKE_HOST)
    host.chmod(0o755)
    done = subprocess.run([sys.executable, str(SCRIPT), "--quorvel", str(host), "--source-dir",
                           str(source), "--python-path", str(tmp_path), str(page(tmp_path, text))],
                          capture_output=True, text=True)
    return done.returncode, done.stderr + done.stdout


def test_output_shown_must_be_printed(tmp_path):
    good = "```sh\nquorvel info data/a.las\n```\n\n```text\nargs: info data/a.las\ntook ... s\n```\n"
    assert run(tmp_path, good)[0] == 0
    drifted = good.replace("args: info", "args: convert")
    code, out = run(tmp_path, drifted)
    assert code == 1 and "    args: convert data/a.las" in out
    # A shown line is a whole printed line, not a part of one.
    code, _ = run(tmp_path, good.replace("args: info data/a.las", "info data/a.las"))
    assert code == 1


def test_failing_blocks_fail(tmp_path):
    code, out = run(tmp_path, "```sh\nquorvel fail\n```\n")
    assert code == 1 and "page.md:1: exited with 1, not 0" in out and "asked to fail" in out
    # An example of an error says so, and its exit status is checked.
    failing = "```sh exit=1\nquorvel fail\n```\n\n```text\nquorvel: error: asked to fail\n```\n"
    assert run(tmp_path, failing)[0] == 0
    assert run(tmp_path, failing.replace("exit=1", "exit=2"))[0] == 1
    code, out = run(tmp_path, "```python\nraise SystemExit(3)\n```\n")
    assert code == 1 and "exited with 3, not 0" in out
    # A later command of a block still counts.
    code, _ = run(tmp_path, "```sh\nquorvel info x\nquorvel fail\n```\n")
    assert code == 1


def test_only_host_commands_in_sh_blocks(tmp_path):
    code, out = run(tmp_path, "```sh\nrm -rf data\n```\n")
    assert code == 1 and "not: rm -rf data" in out
    # Comments and continuation lines are no commands of their own.
    ok = "```sh\n# a comment\nquorvel info \\\n  data/a.las\n```\n"
    assert run(tmp_path, ok)[0] == 0


def test_blocks_of_a_page_share_their_folder(tmp_path):
    text = ("```json file=p.json\n[1]\n```\n\n"
            "```python\nopen('made.txt', 'w').write(open('p.json').read())\n```\n\n"
            "```python\nprint(open('made.txt').read(), open('data/a.las').read())\n```\n"
            "\n```text\n[1]\n...\n```\n")
    code, out = run(tmp_path, text)
    assert code == 0, out


def test_text_block_belongs_only_to_the_block_just_before(tmp_path):
    blocks = checker.parse_blocks(page(tmp_path, (
        "```sh\nquorvel a\n```\n\n```text\nA\n```\n"
        "```sh\nquorvel b\n```\nSome words.\n```text\nB\n```\n")))
    assert [b.language for b in blocks] == ["sh", "sh", "text"]
    assert blocks[0].expected.text == "A\n" and blocks[1].expected is None


def test_unclosed_fence_is_reported(tmp_path):
    with pytest.raises(SystemExit, match="page.md:1: a fenced block is not closed"):
        checker.parse_blocks(page(tmp_path, "```sh\nquorvel info x\n"))


def test_links_lead_to_files_and_headings(tmp_path):
    (tmp_path / "other.md").write_text("# Raster bundle\n```sh\n# Not a heading\n```\n")
    good = "[a](other.md) [b](other.md#raster-bundle) [c](https://example.org/x)\n"
    assert checker.broken_links(page(tmp_path, good)) == []
    bad = "[a](missing.md) [b](other.md#not-a-heading) [c](other.md#not-a-heading-1)\n"
    assert checker.broken_links(page(tmp_path, bad)) == [
        "missing.md: no such file", "other.md#not-a-heading: no heading #not-a-heading",
        "other.md#not-a-heading-1: no heading #not-a-heading-1"]
