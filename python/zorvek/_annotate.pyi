from typing import Any, Callable, Optional, TypeVar, Union

_F = TypeVar("_F", bound=Callable[..., Any])

class annotate:
    """A range named `name` in the capture, on the thread that runs it: a context
    manager (`with zorvek.annotate("forward"): ...`) and a decorator
    (`@zorvek.annotate("load_batch")`). Ranges nest and may be opened from any
    thread. Before a zorvek.profile() configured the profiler they do nothing."""

    @property
    def name(self) -> Union[str, bytes]:
        """The range's name, as given."""
    def __init__(self, name: Union[str, bytes], /) -> None: ...
    def __enter__(self) -> "annotate": ...
    def __exit__(self, exc_type: Optional[type], exc: Optional[BaseException],
                 tb: Optional[object], /) -> bool: ...
    def __call__(self, func: _F, /) -> _F:
        """Annotates every call of `func`."""
