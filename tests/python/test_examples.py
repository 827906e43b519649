"""The README's Python script and examples/python/capture.py run as written,
against the virtual scanner, from the repository's root folder."""

import os
import re
import subprocess
import sys

import kr7

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
MODULE_DIR = os.path.dirname(kr7.__file__)
READOUT = re.compile(r"^result \d: \S+\.png  314x472  area \d+%  contrast \d+%$", re.M)


def run(command, cwd, **kwargs):
    env = dict(os.environ, PYTHONPATH=MODULE_DIR)
    done = subprocess.run(command, cwd=cwd, env=env, capture_output=True, text=True, timeout=120,
                          **kwargs)
    assert done.returncode == 0, done.stderr
    return done.stdout


def test_the_readme_script(tmp_path):
    with open(os.path.join(ROOT, "README.md")) as readme:
        text = readme.read()
    found = re.search(r"\n    PYTHONPATH=build/default/python /usr/bin/python3 - <<'EOF'\n"
                      r"((?:    .*\n)+?)    EOF\n", text)
    assert found, "the README's script"
    script = "\n".join(line[4:] for line in found.group(1).splitlines())
    out = run([sys.executable, "-"], cwd=tmp_path, input=script)
    assert out.startswith("kr7.Info(version=")
    assert len(READOUT.findall(out)) == 3, out
    assert sorted(os.listdir(tmp_path)) == ["result-1.png", "result-2.png", "result-3.png"]


def test_the_example(tmp_path):
    out = run([sys.executable, os.path.join(ROOT, "examples", "python", "capture.py"),
               "--virtual", "--out", str(tmp_path)], cwd=tmp_path)
    assert len(READOUT.findall(out)) == 3, out
    sheet = kr7.load(tmp_path / "results.png")
    assert sheet.shape == (472, 3 * 314)
