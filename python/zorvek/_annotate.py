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
    """Annotates every call of `func`: `@annotate("step")` above a def.

    A plain function's calls share this range object: it keeps one open entry per
    thread and nesting level, and a call ends on the thread that began it, so
    recursive calls and calls from several threads each get a range of their own.
    A call of a coroutine, generator or async generator function gets a range
    object of its own instead: coroutines of one thread overlap (one may finish
    before another that began after it), and a shared object, which tells its
    entries apart by thread only, would end the other one's range."""
    name = self.name
    if inspect.iscoroutinefunction(func):
        async def wrapper(*args, **kwargs):
            with annotate(name):
                return await func(*args, **kwargs)
    elif inspect.isasyncgenfunction(func):
        async def wrapper(*args, **kwargs):
            # Each step (up to the next value, or the end) is a range of its own,
            # with its awaits, as a coroutine's call is. One object serves the
            # steps: an async generator never runs two at once.
            scope = annotate(name)
            inner = func(*args, **kwargs)
            try:
                with scope:
                    value = await inner.__anext__()
                while True:
                    try:
                        sent = yield value
                    except GeneratorExit:
                        raise
                    except BaseException as error:
                        with scope:
                            value = await inner.athrow(error)
                    else:
                        with scope:
                            value = await inner.asend(sent)
            except StopAsyncIteration:
                return
            finally:
                await inner.aclose()
    elif inspect.isgeneratorfunction(func):
        def wrapper(*args, **kwargs):
            # Each resume (up to the next value, or the end) is a range of its own,
            # on the thread that resumes it: the time between two values is the
            # consumer's, and a generator may be resumed from several threads. One
            # object serves the resumes: a generator never runs two at once.
            scope = annotate(name)
            inner = func(*args, **kwargs)
            try:
                with scope:
                    value = next(inner)
                while True:
                    try:
                        sent = yield value
                    except GeneratorExit:
                        raise
                    except BaseException as error:
                        with scope:
                            value = inner.throw(error)
                    else:
                        with scope:
                            value = inner.send(sent)
            except StopIteration as stop:
                return stop.value
            finally:
                inner.close()
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
exit closes the calling thread's innermost entry. On a coroutine function every
call is a range, which covers its awaits, during which other coroutines of the
thread run inside it. On a generator function every resume is a range (up to the
value it yields, or its end), on the thread that resumes it; on an async generator
function every step is, with its awaits."""
