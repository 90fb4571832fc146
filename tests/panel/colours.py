# SPDX-License-Identifier: Apache-2.0
"""How far colours are apart, for those who see all of them and for those who do not."""
from __future__ import annotations

import math

Colour = tuple[float, float, float]  # red, green and blue, linear, from 0 to 1

# What is left of a colour without one kind of cones: Machado, Oliveira, Fernandes, 2009.
EYES = {
    "all cones": ((1, 0, 0), (0, 1, 0), (0, 0, 1)),
    "protanopia": (
        (0.152286, 1.052583, -0.204868),
        (0.114503, 0.786281, 0.099216),
        (-0.003882, -0.048116, 1.051998),
    ),
    "deuteranopia": (
        (0.367322, 0.860646, -0.227968),
        (0.280085, 0.672501, 0.047413),
        (-0.011820, 0.042940, 0.968881),
    ),
    "tritanopia": (
        (1.255528, -0.076749, -0.178779),
        (-0.078411, 0.930809, 0.147602),
        (0.004733, 0.691367, 0.303900),
    ),
}


def colour(words: str) -> Colour:
    """Of "#rrggbb" or "rgb(r, g, b)"."""
    if words.startswith("#"):
        parts = [int(words[at : at + 2], 16) for at in (1, 3, 5)]
    else:
        parts = [int(part) for part in words[words.index("(") + 1 : -1].split(",")[:3]]
    red, green, blue = (part / 255 for part in parts)
    return linear(red), linear(green), linear(blue)


def linear(part: float) -> float:
    return part / 12.92 if part <= 0.04045 else float(((part + 0.055) / 1.055) ** 2.4)


def contrast(one: Colour, other: Colour) -> float:
    """By the Web Content Accessibility Guidelines: from 1 to 21."""
    dark, light = sorted(0.2126 * red + 0.7152 * green + 0.0722 * blue for red, green, blue in (one, other))
    return (light + 0.05) / (dark + 0.05)


def distance(one: Colour, other: Colour, eye: str) -> float:
    """In CIELAB, where the eye just tells two colours apart that are 2.3 from each other."""
    return math.dist(lab(seen(one, eye)), lab(seen(other, eye)))


def seen(one: Colour, eye: str) -> Colour:
    red, green, blue = (min(1.0, max(0.0, sum(a * b for a, b in zip(row, one, strict=True)))) for row in EYES[eye])
    return red, green, blue


def lab(one: Colour) -> Colour:
    red, green, blue = one
    x = bent((0.4124 * red + 0.3576 * green + 0.1805 * blue) / 0.95047)
    y = bent(0.2126 * red + 0.7152 * green + 0.0722 * blue)
    z = bent((0.0193 * red + 0.1192 * green + 0.9505 * blue) / 1.08883)
    return 116 * y - 16, 500 * (x - y), 200 * (y - z)


def bent(value: float) -> float:
    return float(value ** (1 / 3)) if value > 0.008856 else 7.787 * value + 16 / 116
