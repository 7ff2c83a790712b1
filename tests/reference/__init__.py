"""Reference arithmetic for the tests: numpy, double precision, straight from the packed bytes.

Nothing here is shared with the kernels: layouts are read again from their description, code tables are written
out as numbers or formulas, and the two published grids come from the PyPI package `gguf`.

    registry   ids, block sizes and planes of the formats
    formats    bytes -> codes, scales, values
    grids      the two published grids
    random_weights   random packed weights whose matrix stays within a magnitude, and blank ones
    rounding   the element types and rounding to them
    expand     the expansions of a whole weight, with every rounding that the kernels are to make
    linear     x times W transposed, and how far a kernel in a given dtype may be away from it
    q8_1       activations in 8-bit blocks, and the integer dot products on them
    systolic   tiled product with one reduction over eight shares of K
    fused      projections with rotary embedding, gated MLP
    rwkv       RWKV attention v4 and v5, time shift
    operators  batch product, expert grouping, row lookup
    paths      which path a linear call takes, which kernels it launches, or how it is refused
    forward    the result of a linear call by the path it takes
    geometry   launch ranges, sub-group sizes, labels and source stems of the kernels
"""
