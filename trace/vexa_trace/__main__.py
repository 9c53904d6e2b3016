"""python3 -m vexa_trace: the same as script/trace."""

import sys

from .cli import main

sys.exit(main())
