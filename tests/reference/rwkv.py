"""RWKV attention v4 and v5 and the time shift, with tolerances for float arithmetic and results in `dtype`."""

from __future__ import annotations

import numpy as np

from .linear import gamma
from .rounding import UNDERFLOW, UNIT, add, multiply, round_to


def attention_v4(time_decay, time_first, key, value, num, den, top, dtype: str):
    """Returns (result, tolerance, (num, den, max), (tolerances of the three)); tokens (B, S, H), states (B, H).

    The exponents are differences of floats: their absolute error is a unit of the numbers they come from, and that is
    a relative error of the exponentials. It adds up over the sequence, like the roundings of the sums.
    """
    key, value = np.asarray(key, np.float64), np.asarray(value, np.float64)
    w, u = np.asarray(time_decay, np.float64), np.asarray(time_first, np.float64)
    num, den, top = (np.array(t, np.float64) for t in (num, den, top))
    reach = np.abs(num)  # the numerator with all values taken by magnitude
    unit, drift = UNIT["float"], np.zeros_like(num)  # drift: relative error of num and den, in units
    top_drift = np.zeros_like(num)
    result, bound = np.empty_like(key), np.empty_like(key)
    for s in range(key.shape[1]):
        k, v = key[:, s], value[:, s]
        a = k + u
        p = np.maximum(top, a)
        e1, e2 = np.exp(top - p), np.exp(a - p)
        weight = e1 * den + e2
        result[:, s] = (e1 * num + e2 * v) / weight
        error = 2 * drift + top_drift + 12 + 4 * (np.abs(top) + np.abs(a) + np.abs(k))
        magnitude = (e1 * reach + e2 * np.abs(v)) / np.abs(weight)
        bound[:, s] = unit * error * (magnitude + np.abs(result[:, s]))
        bound[:, s] += UNIT[dtype] * np.abs(result[:, s]) + UNDERFLOW[dtype]
        c = top + w
        q = np.maximum(c, k)
        e1, e2 = np.exp(c - q), np.exp(k - q)
        num, den, reach, top = e1 * num + e2 * v, e1 * den + e2, e1 * reach + e2 * np.abs(v), q
        drift = drift + 8 + 4 * (np.abs(c) + np.abs(k)) + top_drift
        top_drift = top_drift + 2 * np.abs(c)
    states = (unit * drift * reach, unit * drift * np.abs(den), unit * top_drift)
    return result, bound, (num, den, top), states


def attention_v5(time_decay, time_first, receptance, key, value, state):
    """Returns (result (B, S, N, D), tolerance, state, tolerance); inputs (B, N, S, D), state (B, N, D, D).

    The tolerance runs the same recurrence on magnitudes; a state element has met two roundings a token.
    """
    r, k, v = (np.asarray(t, np.float64) for t in (receptance, key, value))
    decay = np.asarray(time_decay, np.float64)[None, :, :, None]
    first = np.asarray(time_first, np.float64)[None, :, :, None]
    state = np.array(state, np.float64)
    reach = np.abs(state)
    batch, heads, tokens, size = k.shape
    result = np.empty((batch, tokens, heads, size))
    bound = np.empty_like(result)
    for s in range(tokens):
        x = k[:, :, s, :, None] * v[:, :, s, None, :]
        row = r[:, :, s, :, None]
        result[:, s] = (row * (first * x + state)).sum(axis=2)
        magnitude = (np.abs(row) * (np.abs(first * x) + reach)).sum(axis=2)
        bound[:, s] = gamma(size + 4 + 2 * s + 2, UNIT["float"]) * magnitude
        state = decay * state + x
        reach = np.abs(decay) * reach + np.abs(x)
    return result, bound, state, gamma(2 * tokens + 2, UNIT["float"]) * reach


def time_shift(hidden, shifted, mix, dtype: str):
    """(M, B, S, H) in the storage type of `dtype`, rounded after the difference, the product and the sum."""
    x, y = round_to(hidden, dtype), round_to(shifted, dtype)
    difference = add(x, -y, dtype)
    rows = round_to(mix, dtype).reshape(np.shape(mix)[0], 1, 1, -1)
    return add(y[None], multiply(rows, difference[None], dtype), dtype)
