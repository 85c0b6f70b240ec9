"""zorvek.annotate: annotation ranges as a context manager and a decorator."""

import functools
import inspect

import _zorv

# annotate is _zorv's own range type, not a Python class around it: a range must
# cost about what the two bare calls annotation_begin and annotation_end cost, and
# a Python subclass, or a Python __enter__, costs a tenth to a half of that again
# per range. The decorator form and the names are added to that type here.
annotate = _zorv._Range


def _decorate(self, func):
    """Annotates every call of `func`: `@annotate("step")` above a def. The range
    object is shared by the calls; it keeps one open entry per thread and nesting
    level, so recursive calls and calls from several threads each get a range of
    their own."""
    if inspect.iscoroutinefunction(func):
        async def wrapper(*args, **kwargs):
            with self:
                return await func(*args, **kwargs)
    else:
        def wrapper(*args, **kwargs):
            with self:
                return func(*args, **kwargs)
    return functools.update_wrapper(wrapper, func)


annotate.__call__ = _decorate
annotate.__name__ = annotate.__qualname__ = "annotate"
annotate.__module__ = "zorvek"
annotate.__doc__ = """annotate(name)

A range named `name` (str or bytes) in the capture, on the thread that runs it:
as a context manager,

    with zorvek.annotate("forward"):
        loss = model(x)

or as a decorator, which annotates every call:

    @zorvek.annotate("load_batch")
    def load_batch(): ...

Ranges nest, and any thread may open its own. A range costs about what the bare
_zorv.annotation_begin and annotation_end pair costs (bench/bench_python_annotate.py
measures both). Ranges are recorded from the moment a zorvek.profile() configured
the profiler; before that, and in a process that is not profiled, they do nothing
and cost next to nothing. They never configure the profiler by themselves.

The same object may be entered again before it is left (recursion, threads); each
exit closes the calling thread's innermost entry. A coroutine's range covers its
awaits, during which other coroutines of the thread run inside it."""
