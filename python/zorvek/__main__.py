"""python -m zorvek: the zorvek command."""

import sys

from zorvek.cli import main

sys.exit(main())
