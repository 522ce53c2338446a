"""Puts figures before backgrounds and spoils the result as a camera would.

Figures and backgrounds are made once, on canvases of CANVAS pixels a side, and
combined anew each time a picture is drawn: any figure with any background,
each cropped, flipped and tinted by itself, then noise, blur, vignetting and
JPEG over both.  pair(seed, figures, backgrounds) depends on its arguments only.
"""

import io

import numpy as np
from PIL import Image, ImageFilter

from drawing import any_colour, noise

SIZE = 256
CANVAS = 288


def crop(rng, image, least=0.72):
    """Returns a random square part of an image (PIL), flipped or not, scaled
    to SIZE; the part has at least `least` of the canvas's side and lies more
    often at its top, where heads are."""
    side = image.width * rng.uniform(least, 1)
    x, y = (image.width - side) * rng.random(2) ** (1, 2.5)
    part = image.resize((SIZE, SIZE), Image.BILINEAR, (x, y, x + side, y + side))
    return part.transpose(Image.FLIP_LEFT_RIGHT) if rng.random() < 0.5 else part


def tinted(rng, colour, strength):
    """Returns colours after random gain, gamma, saturation and white balance."""
    grey = colour.mean(-1, keepdims=True)
    colour = grey + (colour - grey) * np.float32(rng.uniform(1 - strength, 1 + strength * 0.6))
    gain = rng.uniform(1 - 0.6 * strength, 1 + 0.4 * strength) * rng.normal(1, 0.12 * strength, 3)
    colour = np.clip(colour * gain.astype(np.float32), 0, 1)
    return colour ** np.float32(np.exp(rng.normal(0, 0.35 * strength)))


def contact(rng, colour, alpha):
    """Darkens or lightens the background close to the figure: cast shadow, or
    the halo of a sharpened picture."""
    image = Image.fromarray((alpha * 255).astype(np.uint8))
    soft = image.filter(ImageFilter.GaussianBlur(rng.uniform(1, 25)))
    dx, dy = rng.normal(0, 8, 2)
    soft = soft.transform(soft.size, Image.AFFINE, (1, 0, dx, 0, 1, dy))
    strength = rng.uniform(-0.15, 0.6)
    return np.clip(colour * (1 - strength * np.asarray(soft, np.float32)[..., None] / 255), 0, 1)


def camera(rng, colour):
    """Returns the picture (SIZE, SIZE, 3) uint8 as a camera would give it."""
    if rng.random() < 0.4:
        c = np.linspace(-1, 1, SIZE, dtype=np.float32)
        r2 = (c - rng.normal(0, 0.2))[None, :] ** 2 + (c - rng.normal(0, 0.2))[:, None] ** 2
        colour = colour * np.clip(1 - rng.uniform(0, 0.4) * r2, 0, 1)[..., None]
    colour = tinted(rng, colour, rng.choice([0.1, 0.4, 0.8]))
    if rng.random() < 0.1:
        colour = np.repeat(colour.mean(-1, keepdims=True), 3, -1)
    image = Image.fromarray((np.clip(colour, 0, 1) * 255 + 0.5).astype(np.uint8))
    kind = rng.random()
    if kind < 0.25:
        s = int(SIZE * rng.uniform(0.4, 0.9))
        image = image.resize((s, s), Image.BILINEAR).resize((SIZE, SIZE), Image.BICUBIC)
    elif kind < 0.5:
            image = image.filter(ImageFilter.UnsharpMask(rng.uniform(0.8, 2), int(rng.uniform(30, 200)), 0))
    if rng.random() < 0.6:
        grain = rng.standard_normal((SIZE, SIZE, 3 if rng.random() < 0.6 else 1), dtype=np.float32)
        level = rng.uniform(0, 14)
        image = Image.fromarray(np.clip(np.asarray(image) + grain * level, 0, 255).astype(np.uint8))
    if rng.random() < 0.5:
        buffer = io.BytesIO()
        image.save(buffer, 'JPEG', quality=int(rng.uniform(25, 95)))
        image = Image.open(buffer).convert('RGB')
    return np.asarray(image)


def pair(seed, figures, backgrounds):
    """Returns a picture (SIZE, SIZE, 3) uint8 and its label (SIZE, SIZE) uint8,
    255 for person.

    figures: (n, CANVAS, CANVAS, 4) uint8; backgrounds: (m, CANVAS, CANVAS, 3)."""
    rng = np.random.default_rng(seed)
    behind = crop(rng, Image.fromarray(backgrounds[rng.integers(len(backgrounds))]), 0.5)
    colour = tinted(rng, np.asarray(behind, np.float32) / 255, 0.5)
    if rng.random() < 0.03:
        return camera(rng, colour), np.zeros((SIZE, SIZE), np.uint8)
    front = crop(rng, Image.fromarray(figures[rng.integers(len(figures))]))
    front = np.asarray(front, np.float32) / 255
    alpha = front[..., 3]
    person = tinted(rng, front[..., :3], 0.4)
    if rng.random() < 0.5:
        colour = contact(rng, colour, alpha)
    if rng.random() < 0.15:                             # wall and clothes alike
        dress = person[-40:][alpha[-40:] > 0.9]
        if len(dress):
            colour = colour * 0.5 + dress.mean(0) * 0.5
    colour = colour + (person - colour) * alpha[..., None]
    if rng.random() < 0.15:                             # light from one side over all
        wash = noise(rng, SIZE, 2, 1)[..., None]
        colour = np.clip(colour + (any_colour(rng) - colour) * wash * rng.uniform(0, 0.4), 0, 1)
    return camera(rng, colour), (alpha * 255 + 0.5).astype(np.uint8)
