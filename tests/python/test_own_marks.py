"""The marks zorvek.profile writes of its own into a capture: the producers' stall
time, which summary reads back, and the clock-sync ties; neither shows as a range
of the program's."""

import json
import subprocess
import sys
import textwrap

from zvk_testing import run_python


def test_summary_reads_the_stall_time_and_hides_the_profilers_own_ranges(tmp_path):
    script = tmp_path / "program.py"
    script.write_text(textwrap.dedent("""
        import zorvek
        # perf events bring the clock-sync ties with them.
        events = {"perf": {"EventConfigs": "1,0,1000003,743,0,0,0"}}
        with zorvek.profile("out", sample_hz=1000, gpu=False, quiet=True, settings=events):
            with zorvek.annotate("work"):
                sum(i * i for i in range(300000))
    """))
    code, _, err = run_python([str(script)], cwd=tmp_path, env={}, timeout=60)
    assert code == 0, err[-4000:]
    summary = subprocess.run([sys.executable, "-m", "zorvek", "summary", "--json", "out"],
                             cwd=tmp_path, capture_output=True, text=True, timeout=60)
    assert summary.returncode == 0, summary.stderr
    (process,) = json.loads(summary.stdout)["processes"]
    assert isinstance(process["producer_stall_ns"], int) and process["producer_stall_ns"] >= 0
    assert [r["name"] for r in process["ranges"]] == ["work"]
    text = subprocess.run([sys.executable, "-m", "zorvek", "summary", "out"], cwd=tmp_path,
                          capture_output=True, text=True, timeout=60).stdout
    assert "Producer stall time: not recorded" not in text
    assert "zorvek.clock_sync" not in text and "zorvek.producer_stall_us" not in text
