"""Packers from dense weights to the packed formats that the module reads, one module per family of formats.

`FORMATS` holds them by name: `FORMATS["q4_0"].pack(weight)` gives the flat bytes of a weight, `.unpack` the inverse.
"""

from . import code_book, grid, integer, k_block, small_float
from .common import Format
from .grid import PUBLIC_BLOCKS, take_over

FORMATS: dict[str, Format] = {
    format_.name: format_
    for family in (integer, code_book, small_float, k_block, grid)
    for format_ in family.FORMATS
}

__all__ = ["FORMATS", "PUBLIC_BLOCKS", "Format", "take_over"]
