"""Drawing tools of the picture maker: smooth outlines, textures, a canvas.

Everything random comes from a numpy Generator handed in, so that one seed
gives one picture.  Pictures are float32 arrays (height, width, 3) of 0 to 1,
masks are (height, width) of 0 to 1.  Points are (x, y) in pixels of the canvas,
y downwards, the centre of the first pixel at 0.5.
"""

import colorsys

import numpy as np
from PIL import Image, ImageDraw, ImageFilter

SUPERSAMPLING = 2


# --- outlines -------------------------------------------------------------

def smooth(points, steps=6):
    """Returns a closed Catmull-Rom curve through points (n, 2), as (n*steps, 2)."""
    p = np.asarray(points, float)
    a, b, c, d = np.roll(p, 1, 0), p, np.roll(p, -1, 0), np.roll(p, -2, 0)
    t = (np.arange(steps) / steps)[None, :, None]
    a, b, c, d = (q[:, None, :] for q in (a, b, c, d))
    curve = 0.5 * (2 * b + (c - a) * t + (2 * a - 5 * b + 4 * c - d) * t ** 2
                   + (3 * b - 3 * c + d - a) * t ** 3)
    return curve.reshape(-1, 2)


def ellipse(x, y, rx, ry, angle=0.0, start=0.0, end=2 * np.pi, count=40):
    """Returns points on an ellipse (or on an arc of it), turned by angle."""
    t = np.linspace(start, end, count, endpoint=abs(end - start) < 6.28)
    px, py = rx * np.cos(t), ry * np.sin(t)
    c, s = np.cos(angle), np.sin(angle)
    return np.stack([x + c * px - s * py, y + s * px + c * py], 1)


def blob(rng, x, y, rx, ry, roughness=0.15, count=9):
    """Returns a smooth random closed curve around (x, y)."""
    t = np.arange(count) * 2 * np.pi / count + rng.uniform(0, 6.28)
    r = 1 + roughness * rng.normal(size=count)
    return smooth(np.stack([x + rx * r * np.cos(t), y + ry * r * np.sin(t)], 1))


def box(x, y, half_w, half_h, angle=0.0, corner=0.0):
    """Returns a rectangle around (x, y), corners rounded by a share `corner`."""
    if corner > 0:
        k = 1 - corner
        p = [(-1, -k), (-k, -1), (k, -1), (1, -k), (1, k), (k, 1), (-k, 1), (-1, k)]
    else:
        p = [(-1, -1), (1, -1), (1, 1), (-1, 1)]
    p = np.array(p) * (half_w, half_h)
    c, s = np.cos(angle), np.sin(angle)
    return p @ np.array([[c, s], [-s, c]]) + (x, y)


def limb(start, end, start_width, end_width, bulge=0.0):
    """Returns the outline of a tapered limb; widths are half widths."""
    a, b = np.asarray(start, float), np.asarray(end, float)
    along = (b - a) / (np.hypot(*(b - a)) + 1e-6)
    across = np.array([-along[1], along[0]])
    middle, width = (a + b) / 2, (start_width + end_width) / 2 * (1 + bulge)
    return smooth([a - along * start_width * 0.7, a + across * start_width * 0.9,
                   middle + across * width, b + across * end_width * 0.9,
                   b + along * end_width * 0.7, b - across * end_width * 0.9,
                   middle - across * width, a - across * start_width * 0.9])


# --- colours --------------------------------------------------------------

def hsv(h, s, v):
    return np.array(colorsys.hsv_to_rgb(h % 1.0, min(max(s, 0), 1), min(max(v, 0), 1)),
                    np.float32)


def any_colour(rng):
    """Returns a colour: saturated, pale, grey or dark, about equally often."""
    kind = rng.integers(5)
    if kind == 0:
        return hsv(rng.random(), rng.uniform(0.7, 1), rng.uniform(0.5, 1))
    if kind == 1:
        return hsv(rng.random(), rng.uniform(0.05, 0.4), rng.uniform(0.6, 1))
    if kind == 2:
        return hsv(rng.random(), rng.uniform(0, 0.1), rng.uniform(0.05, 1))
    if kind == 3:
        return hsv(rng.random(), rng.uniform(0, 1), rng.uniform(0.02, 0.3))
    return hsv(rng.random(), rng.uniform(0.2, 0.9), rng.uniform(0.2, 0.9))


def skin_colour(rng):
    """Returns a skin colour between very light and very dark."""
    stops = np.array([[.98, .84, .75], [.93, .74, .62], [.85, .63, .48],
                      [.70, .47, .33], [.50, .32, .22], [.29, .18, .13]], np.float32)
    t = rng.uniform(0, len(stops) - 1.001)
    i = int(t)
    c = stops[i] + (stops[i + 1] - stops[i]) * (t - i)
    return np.clip(c + rng.normal(0, 0.025, 3), 0, 1).astype(np.float32)


def hair_colour(rng):
    """Returns a hair colour: black, brown, red, blond, grey, rarely dyed."""
    stops = [(.05, .04, .04), (.16, .10, .07), (.30, .19, .11), (.45, .28, .15),
             (.52, .25, .12), (.70, .52, .30), (.85, .72, .48), (.55, .55, .55),
             (.85, .85, .83)]
    if rng.random() < 0.06:
        return hsv(rng.random(), 0.7, 0.6)
    c = np.array(stops[rng.integers(len(stops))]) * rng.uniform(0.7, 1.2)
    return np.clip(c, 0.01, 1).astype(np.float32)


# --- textures -------------------------------------------------------------

def resized(a, width, height):
    image = Image.fromarray(np.ascontiguousarray(a, dtype=np.float32), 'F')
    return np.asarray(image.resize((width, height), Image.BICUBIC))


def noise(rng, size, cells, octaves=3, stretch=1.0, fall=0.5):
    """Returns smooth noise (size, size) of about 0 to 1 with `cells` cells
    across; `stretch` above 1 makes the cells tall."""
    total, weight = np.zeros((size, size), np.float32), 0.0
    for o in range(octaves):
        nx = int(min(max(cells * 2 ** o * max(1, stretch ** 0.5), 2), size))
        ny = int(min(max(cells * 2 ** o / stretch ** 0.5, 2), size))
        total += fall ** o * resized(rng.random((ny, nx)), size, size)
        weight += fall ** o
    return np.clip((total / weight - 0.5) * 1.5 + 0.5, 0, 1)


def coordinates(size):
    """Returns x and y of the pixel centres as two (size, size) arrays."""
    c = np.arange(size, dtype=np.float32) + 0.5
    return np.broadcast_to(c[None, :], (size, size)), np.broadcast_to(c[:, None], (size, size))


def folds(rng, size):
    """Returns brightness factors (size, size) like creases in cloth: ridges
    of low-frequency noise, warped and turned at random."""
    x, y = coordinates(size)
    angle, period = rng.uniform(0, np.pi), size * rng.uniform(0.06, 0.3)
    warp = noise(rng, size, rng.integers(2, 6), 2) * rng.uniform(1, 5)
    wave = np.sin((np.cos(angle) * x + np.sin(angle) * y) / period * 6.28 + warp * 6.28)
    ridges = 1 - np.abs(2 * noise(rng, size, rng.integers(3, 9), 3) - 1)
    a, b = rng.uniform(0, 0.16), rng.uniform(0, 0.5)
    return (1 + a * wave + b * (ridges - 0.7)).astype(np.float32)


def pattern(rng, size, scale, first=None):
    """Returns a patterned surface (size, size, 3): plain, stripes, checks,
    plaid, dots, patches, speckle or a gradient.  `scale` is the size of one
    repeat in pixels."""
    a = any_colour(rng) if first is None else first
    b, c = any_colour(rng), any_colour(rng)
    if rng.random() < 0.5:
        b = np.clip(a * rng.uniform(0.5, 1.5), 0, 1)
    x, y = coordinates(size)
    angle = rng.choice([0, np.pi / 2, rng.uniform(0, 3.14)])
    warp = (noise(rng, size, 4, 2) - 0.5) * scale * rng.uniform(0, 3)
    u = (np.cos(angle) * x + np.sin(angle) * y + warp) / scale
    v = (-np.sin(angle) * x + np.cos(angle) * y + warp) / scale
    kind = rng.integers(9)
    duty = rng.uniform(0.15, 0.6)
    if kind == 0:
        t = (u % 1 < duty)
    elif kind == 1:
        t = (np.floor(u) + np.floor(v)) % 2
    elif kind == 2:
        t = ((u % 1 < duty) * 0.5 + (v % 1 < duty) * 0.5)
    elif kind == 3:
        t = np.hypot(u % 1 - 0.5, v % 1 - 0.5) < duty * 0.6
    elif kind == 4:
        n = noise(rng, size, max(2, size / scale / 2), 3)
        t = (n > 0.45) * 0.5 + (n > 0.6) * 0.5
    elif kind == 5:
        t = noise(rng, size, size // 2, 1) * rng.uniform(0.2, 1)
    elif kind == 6:
        t = np.clip(u * scale / size + rng.uniform(-0.5, 0.5), 0, 1)
    elif kind == 7:
        t = np.clip(np.sin(u * 6.28) * 0.5 + np.sin(v * 6.28) * 0.5, 0, 1)
    else:
        t = noise(rng, size, rng.integers(3, 12), 3)
    t = np.asarray(t, np.float32)[..., None]
    surface = a + (b - a) * t
    if rng.random() < 0.15:
        surface = np.where(((v % 2.3) < 0.4)[..., None], c, surface)
    return surface.astype(np.float32)


def cloth(rng, size, scale, plain=0.5):
    """Returns cloth (size, size, 3): plain or patterned, with folds and weave."""
    if rng.random() < plain:
        surface = np.broadcast_to(any_colour(rng), (size, size, 3))
    else:
        surface = pattern(rng, size, scale * rng.uniform(0.06, 0.7))
    weave = 1 + (rng.random((size, size), dtype=np.float32) - 0.5) * rng.uniform(0, 0.12)
    return np.clip(surface * (folds(rng, size) * weave)[..., None], 0, 1)


def strands(rng, size, colour, x, y, scale):
    """Returns hair (size, size, 3): streaks that run out and down from (x, y)."""
    px, py = coordinates(size)
    dx, dy = (px - x) / scale, (py - y) / scale
    curl = rng.uniform(0, 0.9)
    phase = np.arctan2(dx, dy * 0.5 + 2.0) * rng.uniform(15, 50) \
        + noise(rng, size, rng.integers(4, 18), 2) * rng.uniform(1, 4) * (1 + 3 * curl)
    streak = np.sin(phase) * 0.5 + np.sin(phase * 2.7 + 1) * 0.3
    clumps = noise(rng, size, rng.integers(5, 30), 3, stretch=rng.uniform(1, 6)) - 0.5
    factor = 1 + rng.uniform(0.05, 0.3) * streak + rng.uniform(0.2, 0.9) * clumps
    sheen = np.exp(-((dy + rng.uniform(0.2, 0.9)) / 0.35) ** 2) * rng.uniform(0, 0.15)
    return np.clip(colour * factor[..., None] + sheen[..., None], 0, 1).astype(np.float32)


# --- canvas ---------------------------------------------------------------

def blurred(mask, radius):
    """Returns a mask blurred by a Gaussian of the given radius in pixels."""
    image = Image.fromarray((np.clip(mask, 0, 1) * 255).astype(np.uint8))
    return np.asarray(image.filter(ImageFilter.GaussianBlur(radius)), np.float32) / 255


class Canvas:
    """A square picture with coverage, painted from back to front.

    colour: (size, size, 3), not premultiplied; alpha: (size, size).
    light: direction (x, y) that light comes from, length 0 (flat) to 1.
    """

    def __init__(self, size, light=(0.0, 0.0), colour=None):
        self.size = size
        self.light = np.asarray(light, float)
        self.colour = np.zeros((size, size, 3), np.float32)
        self.alpha = np.zeros((size, size), np.float32)
        if colour is not None:
            self.colour[:] = colour
            self.alpha[:] = 1

    def cover(self, outline, holes=()):
        """Returns (mask, rows, columns) of an outline less holes: the
        antialiased coverage in the slices of the canvas that it touches,
        or None where it lies outside."""
        p = np.asarray(outline, float)
        x0, y0 = np.floor(p.min(0)).astype(int) - 1
        x1, y1 = np.ceil(p.max(0)).astype(int) + 1
        x0, y0 = max(x0, 0), max(y0, 0)
        x1, y1 = min(x1, self.size), min(y1, self.size)
        if x1 - x0 < 1 or y1 - y0 < 1:
            return None
        k = SUPERSAMPLING
        image = Image.new('L', ((x1 - x0) * k, (y1 - y0) * k))
        draw = ImageDraw.Draw(image)
        for outline_, fill in [(p, 255)] + [(h, 0) for h in holes]:
            q = (np.asarray(outline_, float) - (x0, y0)) * k - 0.5
            draw.polygon([tuple(v) for v in q], fill=fill)
        mask = np.asarray(image.reduce(k), np.float32) / 255
        return mask, slice(y0, y1), slice(x0, x1)

    def paint(self, outline, colour, relief=0.0, shade=0.6, opacity=1.0, soft=0.0,
              holes=(), inside=None):
        """Paints an outline with a colour (3,) or a surface (size, size, 3).

        relief: how far in the rounding of the edges reaches, in pixels;
        shade: its strength; soft: blur of the edge in pixels; inside: a mask
        (size, size) to stay within.  Returns nothing."""
        covered = self.cover(outline, holes)
        if covered is None:
            return
        mask, rows, columns = covered
        colour = np.asarray(colour, np.float32)
        colour = np.broadcast_to(colour, mask.shape + (3,)) if colour.ndim == 1 \
            else colour[rows, columns]
        if relief > 0.5 and min(mask.shape) > 2:
            height = blurred(mask, relief)
            gy, gx = np.gradient(height)
            tone = (gx * -self.light[0] + gy * -self.light[1]) * relief * 2.5
            tone = 1 + shade * (tone + 0.6 * (height - 0.85))
            colour = colour * np.clip(tone, 0.15, 2)[..., None]
        if soft > 0:
            mask = blurred(mask, soft)
        if inside is not None:
            mask = mask * inside[rows, columns]
        mask = mask * opacity
        self._blend(mask, colour, rows, columns)

    def _blend(self, mask, colour, rows, columns):
        below = self.alpha[rows, columns]
        total = mask + below * (1 - mask)
        share = (mask / np.maximum(total, 1e-4))[..., None]
        old = self.colour[rows, columns]
        self.colour[rows, columns] = np.clip(old + (colour - old) * share, 0, 1)
        self.alpha[rows, columns] = total

    def shadow(self, outline, strength, soft, inside=None):
        """Darkens what is already painted under an outline."""
        covered = self.cover(outline)
        if covered is None:
            return
        mask, rows, columns = covered
        if soft > 0:
            mask = blurred(mask, soft)
        if inside is not None:
            mask = mask * inside[rows, columns]
        self.colour[rows, columns] *= (1 - strength * mask)[..., None]

    def glow(self, outline, colour, strength, soft):
        """Lightens what is already painted under an outline; adds no coverage."""
        covered = self.cover(outline)
        if covered is None:
            return
        mask, rows, columns = covered
        if soft > 0:
            mask = blurred(mask, soft)
        old = self.colour[rows, columns]
        share = (mask * strength)[..., None]
        self.colour[rows, columns] = old + (np.asarray(colour, np.float32) - old) * share

    def stroke(self, points, width, colour, opacity=1.0, inside=None):
        """Draws an open line through points with a half width in pixels."""
        p = np.asarray(points, float)
        d = np.gradient(p, axis=0)
        n = np.stack([-d[:, 1], d[:, 0]], 1)
        n /= np.linalg.norm(n, axis=1, keepdims=True) + 1e-6
        self.paint(np.concatenate([p + n * width, (p - n * width)[::-1]]), colour,
                   opacity=opacity, inside=inside)

    def whole(self, outline):
        """Returns the coverage of an outline as a mask of the whole canvas."""
        full = np.zeros((self.size, self.size), np.float32)
        covered = self.cover(outline)
        if covered is not None:
            mask, rows, columns = covered
            full[rows, columns] = mask
        return full
