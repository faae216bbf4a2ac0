"""Memory of the C library, kept instead of handed back.

Each step takes and frees the same large blocks. By default each of them is mapped and unmapped
anew, and filling the pages costs a quarter of the time on a processor.
"""

import ctypes

TRIM_THRESHOLD, TOP_PAD, MMAP_MAX = -1, -2, -4  # parameters of glibc's mallopt
PADDING = 256 << 20


def keep_freed_memory():
    """Takes large blocks from the heap and never shrinks it. Without glibc nothing happens."""
    try:
        mallopt = ctypes.CDLL(None).mallopt
    except (AttributeError, OSError, TypeError):
        return
    mallopt(MMAP_MAX, 0)
    mallopt(TRIM_THRESHOLD, 2 ** 31 - 1)
    mallopt(TOP_PAD, PADDING)
