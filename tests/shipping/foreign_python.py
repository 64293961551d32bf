"""A host already running another Python than the one the library embeds:
InitModel of either family must refuse with one message naming both versions
(status 1), and the process must go on and exit normally.
    python3.X foreign_python.py LIBRARY MODEL_DIR EMBEDDED_VERSION"""
import sys

from refusals import init_twice

library, model, embedded = sys.argv[1], sys.argv[2].encode(), sys.argv[3]
running = f"{sys.version_info.major}.{sys.version_info.minor}"
expected = f"this library embeds Python {embedded}, but this process runs Python {running}"
for table, status, handle, errors in init_twice(library, model):
    assert status == 1 and handle is None, (table, status)
    assert len(errors) == 1 and errors[0].endswith(expected), (table, errors)
print(f"{running}: refused with '{errors[0]}'")
