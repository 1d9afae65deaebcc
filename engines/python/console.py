"""What the interpreter's console would do around the blocks: streams, tracebacks, exit statuses.

Runs in a module of the plug-in's own, which brings these functions:
  write(descriptor, bytes)  all of them to the host's output function or, without one, to the descriptor
  redirected()              whether there is an output function
  forked()                  makes the output usable in a child process
  source(name)              the bytes of a block that is still held, or None
  errors_are_noted()        whether the host wants to know what a failed block said
  note_error(type, message, traceback, line)  tells it, texts as bytes
"""

import codecs
import io
import os
import signal
import sys
import threading  # noqa: F401: takes the thread that imports it first for the main one


class Output(io.RawIOBase):
    """One of the process's two output streams, without a buffer. A write is complete or fails."""

    mode = "wb"

    def __init__(self, descriptor, name):
        self._descriptor = descriptor
        self.name = name

    def writable(self):
        return True

    def fileno(self):
        return self._descriptor

    def isatty(self):
        return not redirected() and os.isatty(self._descriptor)

    def write(self, data):
        return write(self._descriptor, data)


def escape_output(error):
    """Undecodable bytes leave as they came in; a surrogate that stands for none is shown by its number."""
    try:
        return codecs.lookup_error("surrogateescape")(error)
    except UnicodeError:
        return codecs.backslashreplace_errors(error)


def open_stream(descriptor, name):
    return io.TextIOWrapper(
        Output(descriptor, name), encoding="utf-8", errors="vexapython.escape", newline="\n", write_through=True
    )


def source_lines(name):
    import importlib.util  # these take memory that most engines never need

    text = source(name)
    if text is None:
        return None
    try:
        text = importlib.util.decode_source(text)
    except (SyntaxError, UnicodeError):
        return None
    return [line + "\n" for line in text.split("\n")]


def block_names(report):
    names = set()
    pending = [report]
    while pending:
        part = pending.pop()
        names.update(frame.filename for frame in part.stack)
        related = [part.__cause__, part.__context__, *(getattr(part, "exceptions", None) or ())]
        pending += [other for other in related if other is not None]
    return [name for name in names if name.startswith("<block ")]


def formatted(kind, value, trace):
    """What the interpreter would show, and the source lines of blocks, which are in no file."""
    import linecache
    import traceback

    report = traceback.TracebackException(kind, value, trace, lookup_lines=False)
    names = block_names(report)
    for name in names:
        lines = source_lines(name)
        if lines is not None:
            linecache.cache[name] = (sum(map(len, lines)), None, lines, name)
    try:
        return "".join(report.format())
    finally:
        for name in names:
            linecache.cache.pop(name, None)


def show(kind, value, trace):
    """The interpreter's own excepthook, which can do without the modules."""
    try:
        text = formatted(kind, value, trace)
    except (ImportError, OSError):
        return sys.__excepthook__(kind, value, trace)
    sys.stderr.write(text)


def block_line(value, trace):
    """Where the block was when it failed; 0 when that is nowhere in it."""
    if isinstance(value, SyntaxError) and str(value.filename).startswith("<block "):
        return value.lineno or 0
    while trace is not None and not trace.tb_frame.f_code.co_filename.startswith("<block "):
        trace = trace.tb_next
    return trace.tb_lineno if trace is not None else 0


def tell_host(kind, value, trace):
    """The same in parts, for a host that wants them."""
    if not errors_are_noted():
        return
    try:
        texts = (kind.__qualname__, str(value), formatted(kind, value, trace))
        parts = [text.replace("\0", "\\x00").encode("utf-8", "backslashreplace") for text in texts]
        note_error(*parts, block_line(value, trace))
    except Exception:
        pass  # what cannot be put into words has been shown as well as it could


def exit_status(leaving):
    status = leaving.code
    if status is None:
        return 0
    if isinstance(status, int):
        return status
    sys.stderr.write(f"{status}\n")
    return 1


def outcome(value):
    """The code of a block that ended with this exception, after showing what the console would show."""
    if isinstance(value, SystemExit):
        return exit_status(value)
    raised = (type(value), value, value.__traceback__)
    sys.last_type, sys.last_value, sys.last_traceback = raised
    sys.last_exc = value
    tell_host(*raised)
    try:
        sys.excepthook(*raised)
    except SystemExit as leaving:
        return exit_status(leaving)
    except BaseException as failure:
        sys.stderr.write("Error in sys.excepthook:\n")
        show(type(failure), failure, failure.__traceback__)
        sys.stderr.write("\nOriginal exception was:\n")
        show(*raised)
    return 1


def take_interrupts():
    """Whether an interrupt raises KeyboardInterrupt on this thread from now on. A handler already set is kept."""
    handler = signal.getsignal(signal.SIGINT)
    try:
        signal.signal(signal.SIGINT, handler if callable(handler) else signal.default_int_handler)
    except ValueError:  # signals are for the thread that started the interpreter
        return False
    return True


def begin(arguments):
    sys.argv = ["", *arguments]
    sys.stdout = sys.__stdout__ = open_stream(1, "<stdout>")
    sys.stderr = sys.__stderr__ = open_stream(2, "<stderr>")
    sys.excepthook = show


def end():
    for stream in (sys.stdout, sys.stderr):
        try:
            stream.flush()
        except Exception:
            pass  # a stream that was closed, or put there by a block, has nobody left to tell


codecs.register_error("vexapython.escape", escape_output)
os.register_at_fork(after_in_child=forked)
