"""Zorvek: a low-overhead profiler that lives inside a training process.

    import zorvek

    with zorvek.profile("runs/capture"):        # configure, start, stop, say where
        for batch in loader:
            with zorvek.annotate("step"):       # a range in the capture, any thread
                train_step(batch)

`zorvek record -- python train.py` does the same for a script left as it is, and
`zorvek summary`, `zorvek timeline` and `zorvek flame` show what a capture holds.
"""

from ._annotate import annotate
from ._profile import profile
from ._settings import SettingError

# Shown by its public name in tracebacks.
SettingError.__module__ = "zorvek"

__all__ = ["profile", "annotate", "SettingError", "__version__"]

try:
    from importlib.metadata import PackageNotFoundError, version as _version

    try:
        __version__ = _version("zorvek")
    except PackageNotFoundError:  # run from a source tree
        __version__ = "0+unknown"
except ImportError:
    __version__ = "0+unknown"
