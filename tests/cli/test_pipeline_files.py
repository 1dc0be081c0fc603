# SPDX-License-Identifier: BSD-3-Clause
"""quorvel pipeline: every fault of a pipeline file is reported with the file and the element it
lies in, and nothing is written; a stage that fails while running is named with its element.

The pipeline files are written here as raw text, so that JSON the library would normalise (a
repeated key, a number out of range, an escaped NUL) reaches the host as it is.

QUORVEL names the host, QUORVEL_SAMPLE_DATA the sample data folder.
"""

import json
import os
import subprocess

import pytest

QUORVEL = os.environ.get("QUORVEL", "quorvel")
DATA = os.environ.get("QUORVEL_SAMPLE_DATA",
                      os.path.join(os.path.dirname(__file__), "..", "..", "data"))
TARGET = os.path.join(DATA, "sample_nc.las")
SOURCE = os.path.join(DATA, "sample_c_thin.las")


def run_pipeline(tmp_path, stage_text, output="out.las"):
    """Runs a pipeline of one stage given as raw JSON text; (the run, the file, the output)."""
    out = tmp_path / output
    path = tmp_path / "pipe.json"
    path.write_text(f'[{json.dumps(TARGET)}, {stage_text}, {json.dumps(str(out))}]')
    done = subprocess.run([QUORVEL, "-q", "pipeline", str(path)], capture_output=True, text=True)
    return done, str(path), out


def refused(tmp_path, stage_text):
    """The error line of a pipeline that must fail before writing anything."""
    done, path, out = run_pipeline(tmp_path, stage_text)
    assert done.returncode != 0, done.stderr
    assert not out.exists()
    assert "[json.exception" not in done.stderr, done.stderr
    return done.stderr.strip().replace(path, "PIPE")


SRC = f'"source": {json.dumps(SOURCE)}'


@pytest.mark.parametrize("stage, message", [
    # A number beyond double's range: the JSON library's own words, with the place.
    (f'{{"command": "transfer", {SRC}, "bands": 1e400}}',
     "quorvel: error: PIPE: element 2: \"bands\": not a JSON text: number overflow parsing "
     "'1e400'"),
    # The library keeps the last of two equal keys: which one was meant is unknown.
    (f'{{"command": "transfer", {SRC}, "bands": "1", "bands": "3"}}',
     'quorvel: error: PIPE: element 2: the key "bands" is given twice'),
    # A file name ends at a NUL for the system: "a.las\\u0000x" would read a.las.
    (f'{{"command": "transfer", "source": {json.dumps(SOURCE + chr(0) + ".bak")}, '
     '"bands": "1"}',
     'quorvel: error: PIPE: element 2: "source": a text holds a NUL character'),
    (f'{{"command": "transfer", {SRC}, "ba\\u0000nds": "1"}}',
     "quorvel: error: PIPE: element 2: a key holds a NUL character"),
    # An empty text is the option's value, not a gap that takes the next option as its value.
    (f'{{"command": "transfer", "bands": "", {SRC}}}',
     "quorvel: error: PIPE: element 2: transfer: --bands: an empty value holds no distance "
     "(leave the option out for the default)"),
])
def test_faults_of_the_file_name_the_element(tmp_path, stage, message):
    assert refused(tmp_path, stage) == message


def test_a_syntax_error_names_the_element_it_follows(tmp_path):
    message = refused(tmp_path, f'{{"command": "transfer", {SRC}, "bands": }}')
    assert message.startswith('quorvel: error: PIPE: element 2: "bands": not a JSON text: '
                              "parse error at line 1"), message


def test_an_empty_value_leaves_the_next_option_its_own(tmp_path):
    # The options go to the parser in key order: before, the empty source classes took
    # "--target-classes=0" as their value and the run failed on it.
    done, _, out = run_pipeline(tmp_path, f'{{"command": "transfer", {SRC}, "bands": "1", '
                                          '"source-classes": "", "target-classes": "0"}')
    assert done.returncode == 0, done.stderr
    assert out.exists()


def test_a_stage_failing_while_it_runs_is_named_with_the_file(tmp_path):
    # The source exists, so the file passes its checks; reading it fails when the stage runs.
    broken = tmp_path / "broken.las"
    broken.write_bytes(b"LASF" + bytes(40))
    done, path, out = run_pipeline(
        tmp_path, f'{{"command": "transfer", "source": {json.dumps(str(broken))}, "bands": "1"}}')
    assert done.returncode == 1
    assert not out.exists()
    assert done.stderr.startswith(f"quorvel: error: {path}: element 2: transfer: {broken}: "), \
        done.stderr
