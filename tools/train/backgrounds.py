"""Backgrounds of made pictures: rooms, studios, flags, clutter, open air.

background(rng, size) gives a picture (size, size, 3) of 0 to 1.  Things in it
(lamps, bottles, plants, models, dark boxes, ...) are there to be told apart
from a person, some of them in skin colours.
"""

import numpy as np

from drawing import (Canvas, any_colour, blob, blurred, box, cloth, coordinates, ellipse,
                     folds, hsv, noise, pattern, skin_colour, smooth)


# --- what fills the picture -------------------------------------------------

def gradient(rng, size):
    a, b = any_colour(rng), any_colour(rng)
    if rng.random() < 0.6:
        b = np.clip(a * rng.uniform(0.4, 1.6) + rng.normal(0, 0.05, 3), 0, 1)
    x, y = coordinates(size)
    if rng.random() < 0.5:
        angle = rng.uniform(0, 6.28)
        t = ((x - size / 2) * np.cos(angle) + (y - size / 2) * np.sin(angle)) / size + 0.5
    else:
        cx, cy = rng.uniform(0, size, 2)
        t = np.hypot(x - cx, y - cy) / size
    return a + (b - a) * np.clip(t, 0, 1)[..., None]


def studio(rng, size):
    """Mottled studio cloth, any grey or pale colour."""
    base = hsv(rng.random(), rng.uniform(0, 0.25), rng.uniform(0.2, 0.95))
    mottle = noise(rng, size, rng.integers(2, 6), 4) - 0.5
    tint = noise(rng, size, 3, 2)[..., None] * rng.normal(0, 0.05, 3)
    surface = base + mottle[..., None] * rng.uniform(0.05, 0.4) + tint
    x, y = coordinates(size)
    cx, cy = rng.uniform(0.2, 0.8, 2) * size
    fall = np.hypot(x - cx, y - cy) / size
    return surface * (1.1 - rng.uniform(0, 0.7) * fall)[..., None]


def clouds(rng, size):
    a, b, c = any_colour(rng), any_colour(rng), any_colour(rng)
    n, m = noise(rng, size, rng.integers(2, 12), 4), noise(rng, size, rng.integers(2, 6), 3)
    return a + (b - a) * n[..., None] + (c - a) * 0.5 * m[..., None]


def wallpaper(rng, size):
    surface = pattern(rng, size, size * rng.uniform(0.03, 0.3))
    light = noise(rng, size, 2, 1) * rng.uniform(0, 0.8)
    return surface * (0.6 + light)[..., None]


def curtain(rng, size):
    x, _ = coordinates(size)
    warp = noise(rng, size, 3, 2, stretch=3) * rng.uniform(1, 6)
    wave = np.sin(x / size * rng.uniform(20, 90) + warp)
    return any_colour(rng) * (0.8 + 0.25 * wave)[..., None]


def bricks(rng, size):
    x, y = coordinates(size)
    h = size * rng.uniform(0.03, 0.12)
    w = h * rng.uniform(1, 3)
    row = np.floor(y / h)
    u = x / w + 0.5 * (row % 2)
    joint = ((u % 1) < 0.06) | ((y / h % 1) < 0.1)
    table = rng.random((64, 64), dtype=np.float32)
    tone = table[row.astype(int) % 64, np.floor(u).astype(int) % 64]
    surface = any_colour(rng) * (0.75 + 0.5 * rng.uniform(0, 1) * (tone - 0.5))[..., None]
    return np.where(joint[..., None], any_colour(rng), surface)


def shelves(rng, size):
    """Rows of upright books and small things."""
    c = Canvas(size, colour=any_colour(rng) * 0.5)
    rows = rng.integers(2, 6)
    for r in range(rows):
        bottom, height = (r + 1) * size / rows, size / rows
        x = rng.uniform(-5, 5)
        while x < size:
            w = size * rng.uniform(0.012, 0.06)
            if rng.random() < 0.85:
                h = height * rng.uniform(0.5, 0.88)
                c.paint(box(x + w / 2, bottom - h / 2, w / 2, h / 2, rng.normal(0, 0.03)),
                        any_colour(rng), relief=w * 0.3)
            x += w * 1.05
        c.paint(box(size / 2, bottom, size, size * 0.012), any_colour(rng) * 0.7)
    return c.colour


def open_air(rng, size):
    """Sky over hills, trees or house fronts."""
    x, y = coordinates(size)
    horizon = size * rng.uniform(0.2, 0.8)
    sky = hsv(rng.uniform(0.5, 0.65), rng.uniform(0, 0.6), rng.uniform(0.6, 1))
    c = Canvas(size, colour=np.clip(
        sky + (1 - sky) * np.clip(y / size, 0, 1)[..., None]
        + (noise(rng, size, 4, 4)[..., None] - 0.5) * rng.uniform(0, 0.4), 0, 1))
    for k in range(rng.integers(1, 4)):
        edge = horizon + size * (0.12 * k + 0.1 * rng.normal(size=9))
        line = np.stack([np.linspace(-20, size + 20, 9), edge], 1)
        green = hsv(rng.uniform(0.1, 0.45), rng.uniform(0.1, 0.8), rng.uniform(0.15, 0.7))
        ground = green * (0.5 + noise(rng, size, rng.integers(8, 40), 3))[..., None]
        c.paint(np.concatenate([line, [(size + 20, size + 20), (-20, size + 20)]]), ground)
    for _ in range(rng.integers(0, 5)):
        w, h = size * rng.uniform(0.05, 0.2), size * rng.uniform(0.1, 0.4)
        bx = rng.uniform(0, size)
        front = pattern(rng, size, size * 0.06)
        c.paint(box(bx, horizon, w, h), front)
    return c.colour


def room(rng, size):
    """Wall, floor or table edge, window, door, pictures, furniture."""
    wall = rng.choice([gradient, studio, wallpaper, gradient])(rng, size)
    c = Canvas(size, rng.normal(0, 0.5, 2), wall)
    if rng.random() < 0.5:
        x = rng.uniform(0, size)
        c.shadow([(x, -9), (size + 9, -9), (size + 9, size + 9),
                  (x + rng.normal(0, 10), size + 9)], rng.uniform(0.05, 0.4), 0)
    if rng.random() < 0.6:
        y = size * rng.uniform(0.55, 0.95)
        c.paint([(-9, y), (size + 9, y + rng.normal(0, 15)), (size + 9, size + 9),
                 (-9, size + 9)], pattern(rng, size, size * 0.2) * rng.uniform(0.4, 1))
    for _ in range(rng.integers(0, 4)):
        picture_frame(rng, c)
    if rng.random() < 0.4:
        window(rng, c)
    for _ in range(rng.integers(0, 4)):
        furniture(rng, c)
    return c.colour


def clutter(rng, size):
    c = Canvas(size, rng.normal(0, 0.6, 2), clouds(rng, size))
    for _ in range(rng.integers(5, 40)):
        x, y = rng.uniform(0, size, 2)
        r = size * rng.uniform(0.02, 0.2)
        outline = blob(rng, x, y, r, r * rng.uniform(0.3, 2), rng.uniform(0, 0.3)) \
            if rng.random() < 0.5 else box(x, y, r, r * rng.uniform(0.2, 3), rng.uniform(0, 3))
        surface = any_colour(rng) if rng.random() < 0.7 else pattern(rng, size, r)
        c.paint(outline, surface, relief=r * rng.uniform(0, 0.5))
    return c.colour


def lights(rng, size):
    """Discs of light far out of focus."""
    c = Canvas(size, colour=np.clip(clouds(rng, size) * rng.uniform(0.1, 0.6), 0, 1))
    r = size * rng.uniform(0.01, 0.06)
    for _ in range(rng.integers(10, 50)):
        x, y = rng.uniform(0, size, 2)
        c.glow(ellipse(x, y, r, r), hsv(rng.random(), rng.uniform(0, 0.9), 1),
               rng.uniform(0.2, 0.9), 0.5)
    return c.colour


# --- things that stand in it --------------------------------------------------

def picture_frame(rng, c):
    s = c.size
    x, y = rng.uniform(0, s), rng.uniform(0, s * 0.6)
    w, h = s * rng.uniform(0.04, 0.2, 2)
    c.paint(box(x, y, w * 1.12, h * 1.12), any_colour(rng), relief=2)
    picture = clouds(rng, s) if rng.random() < 0.6 else pattern(rng, s, w)
    c.paint(box(x, y, w, h), picture)
    if rng.random() < 0.3:
        c.paint(blob(rng, x, y, w * 0.5, h * 0.6), skin_colour(rng))


def window(rng, c):
    s = c.size
    x, y = rng.uniform(0, s), rng.uniform(0.1, 0.5) * s
    w, h = s * rng.uniform(0.1, 0.25), s * rng.uniform(0.15, 0.35)
    frame = any_colour(rng)
    c.paint(box(x, y, w * 1.08, h * 1.08), frame)
    c.paint(box(x, y, w, h), np.clip(open_air(rng, s) * rng.uniform(0.8, 1.8), 0, 1))
    c.paint(box(x, y, w * 0.03, h), frame)
    c.paint(box(x, y, w, h * 0.03), frame)


def furniture(rng, c):
    """A cupboard, table, chair back or dark box, often cut by the edge."""
    s = c.size
    x, w = rng.uniform(0, s), s * rng.uniform(0.06, 0.3)
    top = s * rng.uniform(0.3, 0.9)
    surface = any_colour(rng) * rng.uniform(0.1, 1)
    if rng.random() < 0.4:
        surface = cloth(rng, s, w)
    outline = [(x - w, top), (x + w, top + rng.normal(0, 3)), (x + w, s + 30), (x - w, s + 30)]
    if rng.random() < 0.4:
        outline = smooth(outline, 8)
    c.paint(outline, surface, relief=rng.uniform(0, 8))
    if rng.random() < 0.4:
        c.paint(box(x, top + w * 0.5, w * 0.8, w * 0.3), any_colour(rng), relief=1)


def flag(rng, c):
    """Hanging or standing cloth with stripes, a field and stars, with folds."""
    s = c.size
    x = rng.choice([rng.uniform(-0.05, 0.22), rng.uniform(0.75, 1.05), rng.uniform(0, 1)]) * s
    w, top = s * rng.uniform(0.06, 0.28), s * rng.uniform(-0.2, 0.3)
    bottom = s * rng.uniform(0.5, 1.4)
    px, py = coordinates(s)
    angle = rng.choice([0, 1.57, rng.uniform(0, 3.14), rng.uniform(0.5, 1.1)])
    warp = noise(rng, s, rng.integers(2, 5), 2, stretch=3) * s * rng.uniform(0, 0.4)
    u = (px * np.cos(angle) + py * np.sin(angle) + warp) / (s * rng.uniform(0.02, 0.16))
    colours = np.array([any_colour(rng) for _ in range(rng.integers(2, 4))], np.float32)
    if rng.random() < 0.5:
        colours[0] = hsv(rng.uniform(-0.05, 0.02), 0.85, 0.7)
        colours[1] = 0.9
    surface = colours[np.floor(u).astype(int) % len(colours)]
    drape = np.sin((px + warp * 0.5) / s * rng.uniform(20, 80))
    surface = surface * (0.8 + rng.uniform(0, 0.3) * drape)[..., None] * folds(rng, s)[..., None]
    outline = smooth([(x - w, top), (x + w, top + rng.normal(0, 5)),
                      (x + w * rng.uniform(0.5, 1.6), (top + bottom) / 2),
                      (x + w * rng.uniform(0.6, 1.8), bottom),
                      (x - w * rng.uniform(0.6, 1.8), bottom),
                      (x - w * rng.uniform(0.5, 1.5), (top + bottom) / 2)])
    inside = c.whole(outline)
    c.paint(outline, np.clip(surface, 0, 1), relief=rng.uniform(2, 10))
    if rng.random() < 0.6:
        field = any_colour(rng)
        fx, fy = x + rng.uniform(-w, w), top + (bottom - top) * rng.uniform(0, 0.4)
        c.paint(blob(rng, fx, fy, w, (bottom - top) * 0.25), field, inside=inside)
        for _ in range(rng.integers(0, 15)):
            star(c, fx + rng.uniform(-w, w), fy + rng.normal(0, 0.12) * (bottom - top),
                 s * rng.uniform(0.008, 0.025), any_colour(rng) * 0.3 + 0.7, rng, inside)
    if rng.random() < 0.4:
        c.paint(box(x + rng.choice([-w, w, 0]), s / 2, s * 0.01, s), any_colour(rng), relief=1)


def star(c, x, y, r, colour, rng, inside=None):
    t = np.arange(10) * np.pi / 5 + rng.uniform(0, 6.28)
    radius = np.where(np.arange(10) % 2, r * 0.42, r)
    c.paint(np.stack([x + radius * np.cos(t), y + radius * np.sin(t)], 1), colour, inside=inside)


def turned(rng, c):
    """A bottle, vase, lamp, post or figurine: a random profile turned about an
    upright axis, standing on nothing in particular."""
    s = c.size
    x, base = rng.uniform(0, s), s * rng.uniform(0.4, 1.1)
    h, w = s * rng.uniform(0.08, 0.6), s * rng.uniform(0.01, 0.09)
    n = rng.integers(3, 8)
    radii = w * rng.uniform(0.25, 1, n)
    heights = base - h * np.linspace(0, 1, n)
    right = np.stack([x + radii, heights], 1)
    left = np.stack([x - radii, heights], 1)[::-1]
    outline = np.concatenate([right, left])
    if rng.random() < 0.7:
        outline = smooth(outline)
    surface = skin_colour(rng) if rng.random() < 0.2 else any_colour(rng)
    if rng.random() < 0.3:
        surface = pattern(rng, s, w)
    c.paint(outline, surface, relief=w * rng.uniform(0.2, 0.7), shade=1)
    if rng.random() < 0.4:
        c.paint(box(x, base - h * rng.uniform(0.2, 0.8), w * 0.8, h * 0.08), any_colour(rng))
    if rng.random() < 0.35:
        c.glow(box(x - w * 0.3, base - h * 0.5, w * 0.08, h * 0.3), (1, 1, 1), 0.7, 1)
    if rng.random() < 0.25:
        top = base - h
        shade = w * rng.uniform(1.5, 4)
        c.paint([(x - shade * 0.6, top - shade), (x + shade * 0.6, top - shade),
                 (x + shade, top + 3), (x - shade, top + 3)], any_colour(rng), relief=shade / 2)


def model(rng, c):
    """A toy-like tower, rocket, plane or building model: pointed tubes side by
    side with fins and bands, on a stand."""
    s = c.size
    x, base = rng.uniform(0.02, 0.98) * s, s * rng.uniform(0.4, 1.0)
    h = s * rng.uniform(0.12, 0.6)
    for _ in range(rng.integers(1, 5)):
        tx, w = x + rng.normal(0, 0.09) * h, h * rng.uniform(0.03, 0.13)
        th, foot = h * rng.uniform(0.5, 1), base - h * rng.uniform(0, 0.15)
        colour = any_colour(rng) if rng.random() < 0.6 else np.full(3, rng.uniform(0.6, 1))
        c.paint(smooth([(tx - w, foot), (tx - w, foot - th * 0.75), (tx, foot - th),
                        (tx + w, foot - th * 0.75), (tx + w, foot)]), colour, relief=w * 0.5, shade=1)
        if rng.random() < 0.5:
            c.paint([(tx, foot - th * rng.uniform(0.2, 0.6)), (tx + w * 3, foot), (tx - w * 3, foot)],
                    any_colour(rng), relief=2)
        for _ in range(rng.integers(0, 4)):
            c.paint(box(tx, foot - th * rng.uniform(0.05, 0.7), w * 0.9, h * rng.uniform(0.005, 0.03)),
                    any_colour(rng))
    if rng.random() < 0.7:
        c.paint(box(x, base, h * rng.uniform(0.1, 0.3), h * 0.04), any_colour(rng) * 0.6, relief=2)
        if rng.random() < 0.7:
            stand = s * rng.uniform(0.06, 0.25)
            c.paint([(x - stand, base), (x + stand, base), (x + stand, s + 30), (x - stand, s + 30)],
                    any_colour(rng) * rng.uniform(0.05, 0.9))


def plant(rng, c):
    s = c.size
    x, y = rng.uniform(0, s), s * rng.uniform(0.3, 1)
    for _ in range(rng.integers(5, 30)):
        angle, length = rng.uniform(3.3, 6.1), s * rng.uniform(0.05, 0.3)
        ex, ey = x + length * np.cos(angle), y + length * np.sin(angle)
        green = hsv(rng.uniform(0.15, 0.45), rng.uniform(0.3, 0.9), rng.uniform(0.1, 0.7))
        c.paint(ellipse((x + ex) / 2, (y + ey) / 2, length / 2, length * rng.uniform(0.05, 0.2), angle),
                green, relief=2)
    if rng.random() < 0.6:
        w = s * rng.uniform(0.03, 0.1)
        c.paint([(x - w, y), (x + w, y), (x + w * 0.7, y + w * 1.8), (x - w * 0.7, y + w * 1.8)],
                any_colour(rng), relief=w * 0.4)


def ball(rng, c):
    s = c.size
    x, y, r = rng.uniform(0, s), rng.uniform(0, s), s * rng.uniform(0.02, 0.15)
    colour = skin_colour(rng) if rng.random() < 0.5 else any_colour(rng)
    c.paint(blob(rng, x, y, r, r * rng.uniform(0.7, 1.5), rng.uniform(0, 0.1)), colour,
            relief=r * 0.4, shade=1)


def screen(rng, c):
    s = c.size
    x, y = rng.uniform(0, s), rng.uniform(0.2, 0.9) * s
    w, h = s * rng.uniform(0.06, 0.22), s * rng.uniform(0.05, 0.15)
    c.paint(box(x, y, w, h, corner=0.05), np.full(3, rng.uniform(0, 0.3)))
    c.paint(box(x, y, w * 0.93, h * 0.9), np.clip(clouds(rng, s) * 1.3, 0, 1))
    c.paint(box(x, y + h * 1.3, w * 0.1, h * 0.3), np.full(3, 0.1))


FILLS = (gradient, studio, studio, clouds, wallpaper, curtain, bricks, shelves, open_air,
         room, room, room, clutter, lights)
THINGS = (flag, flag, turned, turned, model, plant, ball, screen, furniture, picture_frame)


def background(rng, size):
    """Returns a background (size, size, 3) of 0 to 1: a fill, things in front
    of it, often out of focus."""
    surface = np.clip(FILLS[rng.integers(len(FILLS))](rng, size), 0, 1).astype(np.float32)
    c = Canvas(size, rng.normal(0, 0.6, 2), surface)
    if rng.random() < 0.3:
        blur_colour(c, size * rng.uniform(0.005, 0.04))
    if rng.random() < 0.75:
        for _ in range(rng.integers(1, 6)):
            THINGS[rng.integers(len(THINGS))](rng, c)
    if rng.random() < 0.55:
        blur_colour(c, size * rng.choice([0.003, 0.008, 0.015, 0.03]) * rng.uniform(0.5, 1.5))
    return c.colour


def blur_colour(c, radius):
    for k in range(3):
        c.colour[..., k] = blurred(c.colour[..., k], radius)
