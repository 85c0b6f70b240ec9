"""Output files of the views, written beside their final name and moved there
whole, so that a failed or interrupted run leaves no half file and no
temporary one."""

from __future__ import annotations

import gzip
import os
from typing import IO

from .capture import ViewError


class AtomicFile:
    """`path`, written through `file` (text, bytes with `binary`, text gzipped
    with `gzipped`); `commit` puts it in place, `abandon` leaves nothing. A place
    that can't be written is a ViewError naming `path`."""

    def __init__(self, path: str, binary: bool = False, gzipped: bool = False):
        self.path = path
        self.tmp = "%s.tmp%d" % (path, os.getpid())
        try:
            if gzipped:
                self.file: IO = gzip.open(self.tmp, "wt", compresslevel=3, encoding="utf-8")
            elif binary:
                self.file = open(self.tmp, "wb")
            else:
                self.file = open(self.tmp, "w", encoding="utf-8")
        except OSError as error:
            raise ViewError("%s: %s" % (path, error.strerror or error)) from None

    def commit(self) -> None:
        self.file.close()
        os.replace(self.tmp, self.path)

    def abandon(self) -> None:
        try:
            self.file.close()
        finally:
            try:
                os.unlink(self.tmp)
            except OSError:
                pass
