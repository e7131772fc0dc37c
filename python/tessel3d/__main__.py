"""python3 -m tessel3d: the command line (see tessel3d.cli)."""
import sys

from .cli import main

sys.exit(main())
