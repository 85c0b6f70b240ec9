"""zorvek._reader's batches() iterator shared by threads. next() lets the GIL go
while it reads a bucket, so a second thread can call next() on the same iterator
meanwhile; that call must be refused, not move the reader under the first one.
The reading runs in a fresh interpreter, so that a crash fails the test instead of
ending the test run."""

import glob
import json
import textwrap

from zvk_testing import run_python

WRITE = textwrap.dedent("""
    import sys
    import _zorv

    config = _zorv.Config()
    config.profiler = {"EnableCuda": "0", "EnablePerf": "0", "BucketCount": "4",
                       "BucketSizeMB": "1", "FlushIntervalMs": "50", "RecordFile": sys.argv[1]}
    profiler = _zorv.Zorvek.instance()
    assert repr(profiler.configure(config)) == "OK"
    profiler.start_profiling()
    # Long names fill many buckets with few calls.
    names = [("range %d " % n) * 100 for n in range(64)]
    for n in range(30000):
        _zorv.annotation_end(_zorv.annotation_begin(names[n % 64]))
    assert repr(profiler.stop_profiling()) == "OK"
""")

READ = textwrap.dedent("""
    import json, sys, threading
    from zorvek import _reader

    sys.setswitchinterval(1e-6)  # hand the GIL over as often as the interpreter can
    capture = _reader.CaptureFile(sys.argv[1])

    def key(record):
        return (record["timestamp"], record["tid"], record["event"])

    expected = sorted(key(r) for batch in capture.batches() for r in batch)
    refused = 0
    for round in range(10):
        iterator = capture.batches()
        barrier = threading.Barrier(2)
        got = [[], []]
        refusals = [0, 0]

        def read(index):
            barrier.wait()
            while True:
                try:
                    batch = next(iterator)
                except StopIteration:
                    return
                except RuntimeError as e:
                    assert "another thread" in str(e), e
                    refusals[index] += 1
                    continue
                got[index].extend(key(r) for r in batch)

        threads = [threading.Thread(target=read, args=(i,)) for i in range(2)]
        for t in threads: t.start()
        for t in threads: t.join()
        # Every record once, whichever thread read its bucket.
        assert sorted(got[0] + got[1]) == expected, round
        refused += sum(refusals)
    print(json.dumps({"records": len(expected), "buckets": capture.buckets, "refused": refused}))
""")


def test_two_threads_reading_one_iterator(tmp_path):
    (tmp_path / "write.py").write_text(WRITE)
    (tmp_path / "read.py").write_text(READ)
    code, _, err = run_python([str(tmp_path / "write.py"), str(tmp_path / "many_%p")],
                              tmp_path, {}, 120)
    assert code == 0, err[-4000:]
    (path,) = glob.glob(str(tmp_path / "many_*.zvkraw"))
    code, out, err = run_python([str(tmp_path / "read.py"), path], tmp_path, {}, 120)
    assert code == 0, err[-4000:]
    result = json.loads(out.splitlines()[-1])
    assert result["records"] >= 2 * 30000 and result["buckets"] >= 8, result
