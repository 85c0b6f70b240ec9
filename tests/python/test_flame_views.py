"""The flame graph's outputs on a real recording: a program with a named thread
and nested annotation ranges, run under `zorvek record`, then `zorvek flame` as
an interactive SVG (its structure, and in headless Chromium where the machine
has it: no console errors, the search's share, a click's zoom), speedscope's JSON
(against a schema of the format) and a pprof profile (parsed back, and by `go
tool pprof` where the machine has Go)."""

import collections
import gzip
import json
import os
import re
import shutil
import subprocess
import sys
import xml.etree.ElementTree as ElementTree

import pytest

from zvk_testing import run_python

SVG = "{http://www.w3.org/2000/svg}"
XHTML = "{http://www.w3.org/1999/xhtml}"

PROGRAM = r'''
import json, os, threading, time
import zorvek


def spin(cpu_seconds):
    began = time.thread_time()
    while time.thread_time() - began < cpu_seconds:
        for _ in range(10000):
            pass


def forward():
    spin(0.12)


def backward():
    spin(0.04)


def load():
    spin(0.3)


def main():
    loader = threading.Thread(target=load, name="pt_loader")
    loader.start()
    for _ in range(4):
        with zorvek.annotate("step"):
            with zorvek.annotate("forward"):
                forward()
            backward()
    loader.join()
    print(json.dumps({"pid": os.getpid(), "main": threading.get_native_id(),
                      "loader": loader.native_id}))


main()
'''


def zorvek(args, cwd, timeout=120):
    process = subprocess.run([sys.executable, "-m", "zorvek", *args], cwd=cwd, capture_output=True,
                             timeout=timeout)
    stderr = process.stderr.decode(errors="replace")
    assert "Traceback" not in stderr, stderr
    assert process.returncode == 0, stderr
    return process.stdout, stderr


@pytest.fixture(scope="module")
def recorded(tmp_path_factory):
    folder = tmp_path_factory.mktemp("flame_views")
    (folder / "train.py").write_text(PROGRAM)
    code, out, err = run_python(["-m", "zorvek", "record", "-q", "-o", "out", "--", sys.executable,
                                 "train.py"], folder, {}, 120)
    assert code == 0, out + err[-4000:]
    seen = json.loads(out.strip().splitlines()[-1])
    return folder, seen


def collapsed(folder, *more):
    stdout, _ = zorvek(["flame", "out", "--format", "collapsed", *more], folder)
    counts = collections.Counter()
    for line in stdout.decode().splitlines():
        stack, n = line.rsplit(" ", 1)
        counts[stack] += int(n)
    return counts


def line_of(text):
    """The line of PROGRAM that holds text."""
    return next(i for i, line in enumerate(PROGRAM.splitlines(), 1) if text in line)


def share_of(counts, needle):
    total = sum(counts.values())
    return sum(n for stack, n in counts.items() if needle in stack) / total


# ---- The interactive SVG ------------------------------------------------------------------


def frames_of(svg_root):
    """(name, samples, x, n, depth, rect) of every frame group."""
    frames = []
    for group in svg_root.iter(SVG + "g"):
        if group.get("class") != "f":
            continue
        title = group.find(SVG + "title").text
        name, about = title.rsplit(" (", 1)
        frames.append((name, int(about.split()[0]), int(group.get("data-x")),
                       int(group.get("data-n")), int(group.get("data-d")), group.find(SVG + "rect")))
    return frames


def test_svg_frames_roots_search_field_and_height(recorded, tmp_path):
    folder, seen = recorded
    out = tmp_path / "flame.svg"
    zorvek(["flame", "out", "-o", str(out)], folder)
    root = ElementTree.parse(out).getroot()
    groups = [g for g in root.iter(SVG + "g") if g.get("class") == "f"]
    assert len(groups) > 10
    for group in groups:
        title, rect = group.find(SVG + "title"), group.find(SVG + "rect")
        assert title is not None and rect is not None
        text = group.find(SVG + "text")
        if text is not None:
            assert title.text.startswith(text.text.rstrip(".")), (title.text, text.text)
    frames = frames_of(root)
    by_depth = collections.defaultdict(list)
    for name, samples, x, n, depth, rect in frames:
        assert samples == n
        by_depth[depth].append(name)
    # Root, then the process by its command line and pid, then its threads by name.
    assert by_depth[0] == ["all"]
    (process,) = by_depth[1]
    assert re.fullmatch(r"python\S* train\.py \(pid %d\)" % seen["pid"], process), process
    assert sorted(by_depth[2]) == ["MainThread", "pt_loader"]
    # Children lie inside their parents on the sample axis.
    spans = [(d, x, x + n) for _, _, x, n, d, _ in frames]
    for name, _, x, n, depth, _ in frames:
        if depth:
            assert any(lo <= x and x + n <= hi for d, lo, hi in spans if d == depth - 1), name
    # Widths in proportion, and rows as many as the deepest stack.
    total = frames[0][1]
    full = float(frames[0][5].get("width"))
    for name, samples, _, _, _, rect in frames:
        assert abs(float(rect.get("width")) - full * samples / total) < 0.02
    deepest = max(depth for *_, depth, _ in frames)
    rows = {int(rect.get("y")) for *_, rect in frames}
    assert len(rows) == deepest + 1
    height = float(root.get("height"))
    assert max(rows) + 16 <= height <= max(rows) + 16 + 40
    # The search field, a real input element, and the script inline.
    (field,) = [e for e in root.iter(XHTML + "input")]
    assert field.get("type") == "search"
    assert any(field in list(fo.iter()) for fo in root.iter(SVG + "foreignObject"))
    (script,) = list(root.iter(SVG + "script"))
    assert "zvk-search" in script.text and "http" not in script.text.replace(
        "http://www.w3.org/2000/svg", "")
    node = shutil.which("node") or shutil.which("nodejs")
    if node:
        js = tmp_path / "flame.js"
        js.write_text(script.text)
        check = subprocess.run([node, "--check", str(js)], capture_output=True, text=True)
        assert check.returncode == 0, check.stderr


def test_svg_by_range_puts_samples_under_the_ranges_open(recorded, tmp_path):
    folder, _ = recorded
    counts = collapsed(folder, "--by-range")
    plain = collapsed(folder)
    assert sum(counts.values()) == sum(plain.values())
    forward = "forward (train.py:%d)" % line_of("spin(0.12)")
    backward = "backward (train.py:%d)" % line_of("spin(0.04)")
    inside = [s for s in counts if forward in s]
    assert inside and all(s.split(";")[1:3] == ["step", "forward"] for s in inside), inside[:3]
    outside = [s for s in counts if backward in s]
    assert outside and all(s.split(";")[1] == "step" and s.split(";")[2] != "forward"
                           for s in outside), outside[:3]
    assert not any("pt_loader" in s for s in counts)  # collapsed stacks stay rooted at the process

    out = tmp_path / "ranges.svg"
    zorvek(["flame", "out", "--by-range", "-o", str(out)], folder)
    frames = frames_of(ElementTree.parse(out).getroot())
    named = {(name, depth) for name, _, _, _, depth, _ in frames}
    assert ("step", 3) in named and ("forward", 4) in named
    # The loader thread opened no range: its frames follow it directly.
    assert any(name.startswith("Thread._bootstrap (") and depth == 3 for name, depth in named)


def _chromium():
    for name in ("chromium", "chromium-browser", "google-chrome"):
        path = shutil.which(name)
        if path:
            return path
    return None


# Catches what the page's own script throws, before it runs.
CATCH = """<script type="text/ecmascript"><![CDATA[
window.zvkErrors = [];
window.addEventListener("error", function (e) { window.zvkErrors.push(String(e.message)); });
]]></script>"""

# Types into the search field, clicks a frame, and leaves what it saw in the page.
DRIVE = """<script type="text/ecmascript"><![CDATA[
(function () {
  var result = {errors: window.zvkErrors};
  try {
    var search = document.getElementById("zvk-search");
    search.value = %(term)s;
    search.dispatchEvent(new Event("input"));
    result.matched = document.getElementById("zvk-matched").textContent;
    var groups = document.getElementsByClassName("f");
    for (var i = 0; i < groups.length; i++) {
      var title = groups[i].getElementsByTagName("title")[0].textContent;
      if (title.indexOf(%(zoom)s) === 0) {
        groups[i].dispatchEvent(new MouseEvent("click", {bubbles: true}));
        result.zoomed = Number(groups[i].getElementsByTagName("rect")[0].getAttribute("width"));
        break;
      }
    }
    var hidden = 0;
    for (var j = 0; j < groups.length; j++) if (groups[j].style.display === "none") hidden++;
    result.hidden = hidden;
    result.reset = document.getElementById("zvk-reset").classList.contains("on");
  } catch (e) {
    result.errors.push(String(e));
  }
  var out = document.createElementNS("http://www.w3.org/2000/svg", "desc");
  out.setAttribute("id", "zvk-result");
  out.textContent = JSON.stringify(result);
  document.documentElement.appendChild(out);
})();
]]></script>"""


def test_svg_in_a_browser_searches_and_zooms(recorded, tmp_path):
    browser = _chromium()
    if browser is None:
        pytest.skip("no headless Chromium on this machine")
    folder, _ = recorded
    out = tmp_path / "flame.svg"
    zorvek(["flame", "out", "-o", str(out), "--width", "1000"], folder)
    counts = collapsed(folder)
    text = out.read_text()
    forward = "forward (train.py:%d)" % line_of("spin(0.12)")
    page = tmp_path / "driven.svg"
    at = text.index("<rect")
    driven = text[:at] + CATCH + text[at:]
    driven = driven.replace("</svg>", DRIVE % {"term": json.dumps("spin"),
                                                "zoom": json.dumps(forward + " (")} + "</svg>")
    page.write_text(driven)
    done = subprocess.run([browser, "--headless", "--no-sandbox", "--disable-gpu",
                           "--user-data-dir=%s" % (tmp_path / "profile"), "--dump-dom",
                           page.as_uri()], capture_output=True, text=True, timeout=120)
    found = re.search(r'<desc id="zvk-result">(.*?)</desc>', done.stdout, re.S)
    assert found, done.stdout[-2000:] + done.stderr[-2000:]
    result = json.loads(found.group(1).replace("&quot;", '"').replace("&amp;", "&")
                        .replace("&lt;", "<").replace("&gt;", ">"))
    assert result["errors"] == []
    shown = float(re.search(r"Matched: ([\d.]+)%", result["matched"]).group(1))
    assert abs(shown - 100 * share_of(counts, "spin (")) < 1.0, (result, share_of(counts, "spin ("))
    assert abs(result["zoomed"] - (1000 - 20)) < 0.01
    assert result["hidden"] > 0 and result["reset"]


# ---- speedscope --------------------------------------------------------------------------

# The file format as speedscope documents it (its FileFormat.File type), for the
# sampled profiles written here.
SPEEDSCOPE_SCHEMA = {
    "$schema": "http://json-schema.org/draft-07/schema#",
    "type": "object",
    "required": ["$schema", "shared", "profiles"],
    "properties": {
        "$schema": {"const": "https://www.speedscope.app/file-format-schema.json"},
        "name": {"type": "string"},
        "activeProfileIndex": {"type": "number"},
        "exporter": {"type": "string"},
        "shared": {
            "type": "object", "required": ["frames"],
            "properties": {"frames": {"type": "array", "items": {
                "type": "object", "required": ["name"],
                "properties": {"name": {"type": "string"}, "file": {"type": "string"},
                               "line": {"type": "number"}, "col": {"type": "number"}},
                "additionalProperties": False}}},
        },
        "profiles": {"type": "array", "items": {
            "type": "object",
            "required": ["type", "name", "unit", "startValue", "endValue", "samples", "weights"],
            "properties": {
                "type": {"const": "sampled"},
                "name": {"type": "string"},
                "unit": {"enum": ["none", "nanoseconds", "microseconds", "milliseconds",
                                  "seconds", "bytes"]},
                "startValue": {"type": "number"},
                "endValue": {"type": "number"},
                "samples": {"type": "array", "items": {"type": "array",
                                                       "items": {"type": "number"}}},
                "weights": {"type": "array", "items": {"type": "number"}},
            },
            "additionalProperties": False}},
    },
}


def test_speedscope_one_profile_a_thread_in_samples(recorded, tmp_path):
    folder, seen = recorded
    out = tmp_path / "x.speedscope.json"
    zorvek(["flame", "out", "-o", str(out)], folder)  # the format by the name
    document = json.loads(out.read_text())
    try:
        import jsonschema
    except ImportError:
        jsonschema = None
    if jsonschema is not None:
        jsonschema.validate(document, SPEEDSCOPE_SCHEMA)
    frames = document["shared"]["frames"]
    names = sorted(p["name"] for p in document["profiles"])
    process = r"python\S* train\.py \(pid %d\)" % seen["pid"]
    assert len(names) == 2 and re.fullmatch(process + " / MainThread", names[0]) and \
        re.fullmatch(process + " / pt_loader", names[1]), names
    counts = collapsed(folder)
    leaves = collections.Counter()
    for profile in document["profiles"]:
        assert len(profile["samples"]) == len(profile["weights"])
        assert profile["unit"] == "none" and profile["endValue"] == sum(profile["weights"])
        for stack, weight in zip(profile["samples"], profile["weights"]):
            assert all(0 <= i < len(frames) for i in stack)
            leaves[frames[stack[-1]]["name"]] += weight
    assert sum(leaves.values()) == sum(counts.values())
    # Root first: a stack read from its first frame is a collapsed line without its process.
    by_text = collections.Counter()
    for profile in document["profiles"]:
        for stack, weight in zip(profile["samples"], profile["weights"]):
            by_text[";".join(_frame_text(frames[i]) for i in stack)] += weight
    assert by_text == collections.Counter({s.split(";", 1)[1]: n for s, n in counts.items()})
    spin = [f for f in frames if f["name"] == "spin"]
    assert spin and all(f["file"] == "train.py" and f["line"] in (line_of("began = "),
                                                                   line_of("while time"),
                                                                   line_of("for _ in"),
                                                                   line_of("pass"))
                        for f in spin)


def _frame_text(frame):
    """A speedscope frame as the collapsed stacks write it."""
    if frame.get("file", "").endswith(".py") or "line" in frame:
        return "%s (%s:%d)" % (frame["name"], frame["file"], frame["line"])
    return frame["name"]


# ---- pprof -------------------------------------------------------------------------------


def test_pprof_parses_back_with_functions_lines_and_mappings(recorded, tmp_path):
    from zorvek.views.pprof import read_profile

    folder, seen = recorded
    out = tmp_path / "cpu.pb.gz"
    zorvek(["flame", "out", "-o", str(out)], folder)
    data = out.read_bytes()
    assert data[:2] == b"\x1f\x8b"
    profile = read_profile(data)
    strings = profile.string_table
    assert strings[0] == ""
    assert [(strings[t.type], strings[t.unit]) for t in profile.sample_type] == [
        ("samples", "count"), ("cpu", "nanoseconds")]
    counts = collapsed(folder)
    assert sum(s.value[0] for s in profile.sample) == sum(counts.values())
    assert all(s.value[1] > 0 for s in profile.sample)
    locations = {loc.id: loc for loc in profile.location}
    functions = {f.id: f for f in profile.function}
    mappings = {m.id: m for m in profile.mapping}
    assert len(locations) == len(profile.location) and 0 not in locations

    def text(location_id):
        loc = locations[location_id]
        (line,) = loc.line
        function = functions[line.function_id]
        name, file = strings[function.name], strings[function.filename]
        return "%s (%s:%d)" % (name, file, line.line) if file else name

    # Leaf first: reversed, a sample is a collapsed line without its process.
    stacks = collections.Counter()
    for sample in profile.sample:
        stacks[";".join(text(i) for i in reversed(sample.location_id))] += sample.value[0]
        labels = {strings[label.key]: strings[label.str] if label.str else label.num
                  for label in sample.label}
        assert labels["pid"] == seen["pid"]
        assert labels["thread"] in ("MainThread", "pt_loader")
        assert (labels["thread"] == "pt_loader") == (labels["tid"] == seen["loader"])
    assert stacks == collections.Counter({s.split(";", 1)[1]: n for s, n in counts.items()})
    spin = [f for f in functions.values() if strings[f.name] == "spin"]
    assert len(spin) == 1
    assert strings[spin[0].filename] == "train.py" and spin[0].start_line == line_of("def spin")
    native = [loc for loc in locations.values() if loc.mapping_id]
    assert native, "no native frame has its mapping"
    for loc in native:
        mapping = mappings[loc.mapping_id]
        assert strings[mapping.filename].startswith("/") and mapping.memory_limit > mapping.memory_start


def test_pprof_is_read_by_go_tool_pprof(recorded, tmp_path):
    go = shutil.which("go")
    if go is None:
        pytest.skip("no Go toolchain on this machine")
    folder, _ = recorded
    out = tmp_path / "cpu.pprof"
    zorvek(["flame", "out", "-o", str(out)], folder)
    env = dict(os.environ, HOME=str(tmp_path), PPROF_TMPDIR=str(tmp_path))
    done = subprocess.run([go, "tool", "pprof", "-top", "-sample_index=samples", str(out)],
                          capture_output=True, text=True, timeout=300, env=env)
    assert done.returncode == 0, done.stderr
    assert re.search(r"\bspin\b", done.stdout) and re.search(r"\bforward\b", done.stdout), done.stdout


# ---- The format by the output's name -------------------------------------------------------


@pytest.mark.parametrize("name, starts", [("g.svg", b"<?xml"), ("g.speedscope.json", b"{"),
                                          ("g.pb.gz", b"\x1f\x8b"), ("g.pprof", b"\x1f\x8b"),
                                          ("g.txt", b"python"), ("g.collapsed", b"python")])
def test_the_output_name_chooses_the_format(recorded, tmp_path, name, starts):
    folder, _ = recorded
    out = tmp_path / name
    _, stderr = zorvek(["flame", "out", "-o", str(out)], folder)
    assert out.read_bytes().startswith(starts), out.read_bytes()[:40]
    assert "wrote %s" % out in stderr
    forced = tmp_path / ("forced_" + name)
    zorvek(["flame", "out", "--format", "collapsed", "-o", str(forced)], folder)
    assert forced.read_bytes().startswith(b"python")
    assert not [p for p in os.listdir(tmp_path) if ".tmp" in p]


def test_pprof_to_stdout_is_the_same_bytes(recorded, tmp_path):
    folder, _ = recorded
    out = tmp_path / "cpu.pb.gz"
    zorvek(["flame", "out", "-o", str(out)], folder)
    stdout, _ = zorvek(["flame", "out", "--format", "pprof", "-o", "-"], folder)
    assert gzip.decompress(stdout) == gzip.decompress(out.read_bytes())


def test_pprof_of_the_wall_clock_says_wall_time(tmp_path):
    (tmp_path / "wait.py").write_text("import time\n\ndef waits():\n    time.sleep(0.3)\n\nwaits()\n")
    code, out, err = run_python(["-m", "zorvek", "record", "-q", "--clock", "wall", "-o", "out",
                                 "--", sys.executable, "wait.py"], tmp_path, {}, 120)
    assert code == 0, out + err[-4000:]
    from zorvek.views.pprof import read_profile

    zorvek(["flame", "out", "-o", "wall.pb.gz"], tmp_path)
    profile = read_profile((tmp_path / "wall.pb.gz").read_bytes())
    strings = profile.string_table
    assert [(strings[t.type], strings[t.unit]) for t in profile.sample_type] == [
        ("samples", "count"), ("wall", "nanoseconds")]
    assert sum(s.value[1] for s in profile.sample) >= 0.2e9


# ---- Ranges open on a thread, and the names of threads, on their own -------------------------


class _Survey:
    """What the flame graph reads of a survey for its ranges and names."""

    def __init__(self, ranges=(), last_real=None):
        from zorvek import _names

        self.ranges = list(ranges)
        self.last_real = dict(last_real or {})
        self.own_names = _names.Names()


def test_open_ranges_nest_outermost_first_and_end_inclusive():
    from zorvek.flame import _OpenRanges

    # (pid, tid, start, end, name, token, unfinished, end tid), appended as they end.
    survey = _Survey([
        (1, 2, 100, 150, "inner", 2, False, 2),   # begins with "outer", ends first
        (1, 2, 100, 300, "outer", 1, False, 2),
        (1, 2, 200, 250, "later", 3, False, 2),
        (1, 2, 260, 280, "handed", 4, False, 3),  # ended on another thread: not the thread's
        (1, 2, 400, None, "open", 5, True, 2),    # never ended: lasts to the process's end
    ], last_real={1: 500})
    ranges = _OpenRanges(survey)
    assert ranges.at(1, 2, 99) == ()
    assert ranges.at(1, 2, 100) == ("outer", "inner")
    assert ranges.at(1, 2, 150) == ("outer", "inner")
    assert ranges.at(1, 2, 151) == ("outer",)
    assert ranges.at(1, 2, 225) == ("outer", "later")
    assert ranges.at(1, 2, 270) == ("outer",)
    assert ranges.at(1, 2, 301) == ()
    assert ranges.at(1, 2, 500) == ("open",) and ranges.at(1, 2, 501) == ()
    assert ranges.at(1, 3, 120) == ()


def test_threads_are_named_and_told_apart():
    from zorvek.flame import _thread_labels

    survey = _Survey()
    for text in ("zorvek.thread 1 10 MainThread", "zorvek.thread 2 11 worker",
                 "zorvek.thread 3 12 worker", "zorvek.thread 4 13 pt_data_worker"):
        assert survey.own_names.learn(10, text)
    labels = _thread_labels(survey, 10, [10, 11, 12, 13, 14])
    assert labels == {10: "MainThread", 11: "worker (11)", 12: "worker (12)",
                      13: "pt_data_worker", 14: "thread 14"}
    assert _thread_labels(_Survey(), 20, [20, 21]) == {20: "main thread", 21: "thread 21"}
