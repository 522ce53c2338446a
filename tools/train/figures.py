"""Person-like figures of made pictures: head, hair, neck, shoulders, arms,
clothes, and what they hold.

figure(rng, size) paints one figure on an empty canvas and gives its colour
(size, size, 3) and coverage (size, size).  The unit of every length below is
`u`, half the height of the head without hair, in pixels; positions are relative
to the centre of the head, x to the right, y downwards, before the turn of the
body.  What hands hold, hats, glasses and collars count as person.
"""

import numpy as np

from drawing import (Canvas, any_colour, blob, box, cloth, coordinates, ellipse, hair_colour, hsv,
                     limb, noise, pattern, skin_colour, smooth, strands)


class Figure:
    """Measures and surfaces of one figure, drawn part by part on a canvas."""

    def __init__(self, rng, size):
        self.rng, self.size = rng, size
        angle, strength = rng.uniform(0, 6.28), rng.uniform(0.1, 1.1)
        self.canvas = Canvas(size, (strength * np.cos(angle), strength * np.sin(angle)))
        self.u = u = size * np.exp(rng.uniform(np.log(0.075), np.log(0.21)))
        self.x = size * np.clip(rng.normal(0.5, 0.1), 0.2, 0.8)
        self.y = u * 1.2 + size * rng.choice([rng.uniform(-0.03, 0.1), rng.uniform(0.05, 0.3)])
        self.tilt, self.lean = rng.normal(0, 0.13), rng.normal(0, 0.07)
        self.turn = np.clip(rng.normal(0, 0.25), -0.7, 0.7)   # of the face, -1 to 1
        self.head_width = rng.uniform(0.66, 0.84)             # half, in u
        self.shoulders = rng.uniform(1.55, 2.5)               # half, in u
        self.slope = rng.uniform(0.15, 0.7)
        self.shoulder_y = rng.uniform(1.45, 1.85)
        self.skin = skin_colour(rng)
        blotches = noise(rng, size, rng.integers(6, 30), 3)[..., None] - 0.5
        grain = rng.random((size, size, 1), dtype=np.float32) - 0.5
        self.skin_surface = np.clip(self.skin * (1 + blotches * rng.uniform(0, 0.25)
                                                 + grain * 0.05), 0, 1).astype(np.float32)
        self.cloth = cloth(rng, size, u * 3)
        self.other_cloth = cloth(rng, size, u * 2)
        self.hair = hair_colour(rng)
        self.hair_surface = strands(rng, size, self.hair, self.x, self.y - u, u)

    # Points of the body and of the head to pixels.

    def body(self, points):
        p = np.atleast_2d(np.asarray(points, float)) * self.u
        return p @ self._turned(self.lean) + (self.x, self.y)

    def head(self, points):
        p = np.atleast_2d(np.asarray(points, float)) * self.u
        return p @ self._turned(self.tilt) + (self.x, self.y)

    @staticmethod
    def _turned(angle):
        c, s = np.cos(angle), np.sin(angle)
        return np.array([[c, s], [-s, c]])

    def paint(self, points, surface, relief=0.0, **options):
        self.canvas.paint(points, surface, relief * self.u, **options)

    def chance(self, p):
        return self.rng.random() < p

    # --- torso and arms -----------------------------------------------------

    def torso(self):
        rng, s = self.rng, self.shoulders
        bulk = rng.uniform(0.95, 1.35)
        y = self.shoulder_y
        left, right = s * rng.uniform(0.9, 1.1), s * rng.uniform(0.9, 1.1)
        neck = rng.uniform(0.35, 0.7)

        def side(w, k):
            j = rng.normal(0, 0.05, 8)
            return [(k * neck, 1.0 + j[0]), (k * w * 0.55, y - self.slope * 0.45 + j[1]),
                    (k * w * 0.92, y + j[2]), (k * w * bulk * 1.04, y + 0.75 + j[3]),
                    (k * w * bulk * rng.uniform(0.95, 1.3), y + 2.2 + j[4]),
                    (k * w * bulk * rng.uniform(0.8, 1.4), y + 4.5),
                    (k * w * bulk * rng.uniform(0.8, 1.3), y + 9),
                    (k * w * bulk, y + 15)]
        outline = smooth(self.body(side(right, 1) + side(left, -1)[::-1]))
        self.torso_outline = outline
        self.torso_mask = self.canvas.whole(outline)
        self.paint(outline, self.cloth, rng.uniform(0.12, 0.35), shade=rng.uniform(0.3, 1))
        self.arm_x, self.arm_y = s * bulk * 0.9, y + 0.6
        if self.chance(0.25):
            self.yoke()
        if self.chance(0.6):
            self.armpits()
        if self.chance(0.7):
            self.creases()

    def yoke(self):
        """Shoulders or chest in other cloth."""
        y = self.shoulder_y + self.rng.uniform(0.2, 1.4)
        outline = smooth(self.body([(-4, -1), (4, -1), (4, y), (1, y + self.rng.normal(0, 0.3)),
                                    (-1, y + self.rng.normal(0, 0.3)), (-4, y)]))
        self.paint(outline, self.other_cloth, 0.1, inside=self.torso_mask)

    def armpits(self):
        """The lines between chest and hanging arms."""
        rng = self.rng
        for k in (-1, 1):
            x = k * self.shoulders * rng.uniform(0.6, 0.85)
            y = self.shoulder_y + rng.uniform(0.6, 1.3)
            line = self.body([(x, y), (x * rng.uniform(0.9, 1.15), y + 1.5),
                              (x * rng.uniform(0.8, 1.3), y + 6)])
            width = self.u * rng.uniform(0.02, 0.1)
            self.canvas.shadow(np.concatenate([line - (width, 0), line[::-1] + (width, 0)]),
                               rng.uniform(0.2, 0.7), self.u * rng.uniform(0.02, 0.1), self.torso_mask)

    def creases(self):
        rng = self.rng
        for _ in range(rng.integers(2, 12)):
            x, y = rng.uniform(-1, 1) * self.shoulders, self.shoulder_y + rng.uniform(0.2, 4)
            angle, length = rng.uniform(0, 3.14), rng.uniform(0.3, 1.5)
            p = self.body([(x - length / 2 * np.cos(angle), y - length / 2 * np.sin(angle)),
                           (x + rng.normal(0, 0.15), y + rng.normal(0, 0.15)),
                           (x + length / 2 * np.cos(angle), y + length / 2 * np.sin(angle))])
            width = self.u * rng.uniform(0.02, 0.12)
            line = np.concatenate([p + (0, width), p[::-1] - (0, width)])
            if self.chance(0.7):
                self.canvas.shadow(smooth(line), rng.uniform(0.1, 0.5), self.u * 0.07,
                                   self.torso_mask)
            else:
                self.canvas.glow(smooth(line), self.cloth.mean((0, 1)) * 0.4 + 0.6,
                                 rng.uniform(0.05, 0.3), self.u * 0.07)

    def arm(self, side):
        """Upper arm, forearm and hand on one side (-1 or 1); gives the hand's
        place (x, y) in u, or None where the arm just hangs."""
        rng = self.rng
        thick = rng.uniform(0.42, 0.72)
        start = (side * self.arm_x * 0.93, self.arm_y)
        elbow = (side * self.arm_x * rng.uniform(0.95, 1.5), self.arm_y + rng.uniform(1.8, 2.7))
        pose = rng.integers(5)
        hand = None
        if pose == 0:
            hand = (side * rng.uniform(-0.6, 1.2), self.shoulder_y + rng.uniform(1.2, 3.4))
        elif pose == 1:
            hand = (side * rng.uniform(0.6, 2.6), self.shoulder_y + rng.uniform(2.0, 4.0))
        elif pose == 2 and self.chance(0.7):
            hand = (side * rng.uniform(0.8, 3.2), rng.uniform(-0.8, 1.6))
            elbow = (side * self.arm_x * rng.uniform(1.1, 1.7), self.arm_y + rng.uniform(0.6, 1.8))
        sleeve = self.cloth if self.chance(0.8) else self.other_cloth
        long_sleeve = self.chance(0.7)
        end = hand or (elbow[0] * rng.uniform(0.7, 1.1), elbow[1] + 2.5)
        relief, shade = thick * 0.45, rng.uniform(0.4, 1)
        upper = self.body([start, elbow])
        fore = self.body([elbow, end])
        u = self.u
        self.canvas.shadow(limb(fore[0], fore[1], u * thick * 1.2, u * thick), 0.3, u * 0.15,
                           self.canvas.alpha.copy())
        lower = sleeve if long_sleeve else self.skin_surface
        wrist = rng.uniform(0.24, 0.34) * (1.3 if long_sleeve else 1)
        self.paint(limb(fore[0], fore[1], u * thick * (0.9 if long_sleeve else 0.7), u * wrist,
                        0.1), lower, relief, shade=shade)
        self.paint(limb(upper[0], upper[1], u * thick, u * thick * 0.9, 0.1), sleeve, relief,
                   shade=shade)
        if self.chance(0.3):
            t = rng.uniform(0.3, 0.9)
            x, y = upper[0] * (1 - t) + upper[1] * t
            self.paint(box(x, y, u * thick * 0.7, u * rng.uniform(0.1, 0.5),
                           np.arctan2(*(upper[1] - upper[0])[::-1]) + 1.57), any_colour(rng), 0.05)
        if hand is not None:
            if self.chance(0.3):
                x, y = fore[1]
                self.paint(ellipse(x, y, u * wrist, u * wrist * 0.6, rng.uniform(0, 3)),
                           any_colour(rng), 0.05)
            self.hand(hand, np.arctan2(hand[1] - elbow[1], hand[0] - elbow[0]))
        return hand

    def hand(self, at, angle):
        """Palm, four fingers and a thumb around `at` (u), fingers along angle."""
        rng, u = self.rng, self.u
        surface = self.skin_surface
        if self.chance(0.08):
            surface = any_colour(rng)
        spread, curl = rng.uniform(0.02, 0.25), rng.uniform(0.4, 1)
        x, y = self.body([at])[0]
        base = np.array([x, y]) + u * 0.3 * np.array([np.cos(angle), np.sin(angle)])
        for k in range(4):
            a = angle + (k - 1.5) * spread
            across = np.array([-np.sin(angle), np.cos(angle)]) * (k - 1.5) * u * 0.13
            tip = base + across + u * 0.5 * curl * np.array([np.cos(a), np.sin(a)])
            self.paint(limb(base + across, tip, u * 0.085, u * 0.065), surface, 0.05, shade=0.8)
        a = angle + rng.choice([-1, 1]) * rng.uniform(0.5, 1.2)
        tip = base + u * 0.35 * np.array([np.cos(a), np.sin(a)])
        self.paint(limb((x, y), tip, u * 0.12, u * 0.08), surface, 0.05, shade=0.8)
        self.paint(blob(rng, *(base - u * 0.08 * np.array([np.cos(angle), np.sin(angle)])),
                        u * 0.3, u * 0.28, 0.06), surface, 0.12, shade=0.6)

    # --- clothes on the torso -----------------------------------------------

    def neck(self):
        rng, u = self.rng, self.u
        w = rng.uniform(0.36, 0.52)
        y = self.shoulder_y - self.slope * 0.3
        top = self.head([(-w, 0.4), (w, 0.4)])
        low = self.body([(w * 1.1, y), (w * 1.5, y + 0.35), (0, y + 0.6), (-w * 1.5, y + 0.35),
                         (-w * 1.1, y)])
        self.neck_outline = smooth(np.concatenate([top, low]))
        self.paint(self.neck_outline, self.skin_surface, 0.2, shade=0.9)
        x, y = self.head([(0, 0.85)])[0]
        self.canvas.shadow(ellipse(x, y, u * 0.6, u * 0.4), rng.uniform(0.15, 0.5), u * 0.12,
                           self.canvas.whole(self.neck_outline))

    def neckline(self):
        """What is at the neck; one of many."""
        rng = self.rng
        kinds = (self.crew, self.open_neck, self.shirt_collar, self.shirt_collar, self.turtleneck,
                 self.scarf, self.ring, self.ring, self.lapels, self.lapels, self.hood_down,
                 self.fur, self.stand_collar)
        kinds[rng.integers(len(kinds))]()
        if self.chance(0.15):
            self.necklace()

    def crew(self):
        rng = self.rng
        y = self.shoulder_y - self.slope * 0.4
        w, h = rng.uniform(0.45, 0.8), rng.uniform(0.25, 0.5)
        x0, y0 = self.body([(0, y)])[0]
        u = self.u
        trim = self.cloth * 0.85 if self.chance(0.6) else any_colour(rng)
        self.paint(ellipse(x0, y0, w * u * 1.15, h * u * 1.25), trim, 0.05)
        self.paint(ellipse(x0, y0 - 0.05 * u, w * u, h * u), self.skin_surface, 0.1)
        self.neck()

    def open_neck(self):
        rng = self.rng
        y = self.shoulder_y - self.slope * 0.5
        w = rng.uniform(0.5, 1.2)
        deep = rng.uniform(0.5, 1.6)
        p = self.body([(-w, y), (w, y), (w * 0.5, y + deep * 0.6), (0, y + deep),
                       (-w * 0.5, y + deep * 0.6)])
        if self.chance(0.5):
            p = smooth(p)
        self.paint(p, self.skin_surface, 0.1)
        self.neck()

    def shirt_collar(self):
        rng = self.rng
        self.neck()
        shirt = self.cloth if self.chance(0.5) else any_colour(rng)
        y = self.shoulder_y - self.slope * 0.3
        w = rng.uniform(0.5, 0.7)
        if self.chance(0.4):
            tie = pattern(rng, self.size, self.u * 0.3)
            t = rng.uniform(0.12, 0.2)
            self.paint(self.body([(-t, y + 0.35), (t, y + 0.35), (t * 0.7, y + 0.65),
                                  (t * 1.9, y + 3.4), (0, y + 3.8), (-t * 1.9, y + 3.4),
                                  (-t * 0.7, y + 0.65)]), tie, 0.06)
        elif self.chance(0.2):
            x, yy = self.body([(0, y + 0.45)])[0]
            for k in (-1, 1):
                self.paint(self.body([(0, y + 0.45), (k * 0.5, y + 0.25), (k * 0.5, y + 0.7)]),
                           any_colour(rng) * 0.8, 0.05)
        for k in (-1, 1):
            self.paint(self.body([(k * w, y - 0.35), (k * (w + 0.15), y + 0.1),
                                  (k * rng.uniform(0.3, 0.55), y + rng.uniform(0.5, 0.8)),
                                  (k * 0.03, y + 0.38)]), shirt, 0.06)

    def turtleneck(self):
        rng = self.rng
        y = self.shoulder_y - self.slope * 0.3
        w, top = rng.uniform(0.42, 0.65), rng.uniform(0.75, 1.0)
        self.neck()
        surface = self.cloth if self.chance(0.6) else any_colour(rng) * rng.uniform(0.1, 1)
        self.paint(smooth(np.concatenate([self.head([(-w, top), (0, top + 0.12), (w, top)]),
                                          self.body([(w * 1.35, y + 0.3), (0, y + 0.55),
                                                     (-w * 1.35, y + 0.3)])])),
                   surface, 0.15, shade=1)

    def stand_collar(self):
        rng = self.rng
        self.neck()
        y = self.shoulder_y - self.slope * 0.3
        surface = self.cloth * rng.uniform(0.6, 1) if self.chance(0.6) else self.other_cloth
        for k in (-1, 1):
            w = rng.uniform(0.55, 0.85)
            self.paint(smooth(self.body([(k * w, y - 0.75), (k * w * 1.15, y + 0.1),
                                         (k * 0.5, y + 0.6), (k * 0.02, y + 0.7),
                                         (k * 0.1, y + 0.2), (k * w * 0.7, y - 0.4)])),
                       surface, 0.08, shade=0.8)
        self.paint(self.body([(-0.04, y + 0.4), (0.04, y + 0.4), (0.05, y + 6), (-0.05, y + 6)]),
                   any_colour(rng), 0.02)

    def scarf(self):
        rng = self.rng
        self.neck()
        surface = cloth(rng, self.size, self.u, 0.3)
        y = self.shoulder_y - self.slope * 0.35
        if self.chance(0.6):
            x = rng.uniform(-0.6, 0.6)
            self.paint(smooth(self.body([(x - 0.25, y), (x + 0.3, y), (x + 0.4, y + 1.5),
                                         (x + 0.35, y + 3), (x - 0.35, y + 3), (x - 0.3, y + 1.5)])),
                       surface, 0.12, shade=1)
        for k in range(rng.integers(1, 4)):
            cx, cy = self.body([(rng.normal(0, 0.08), y - 0.1 + 0.2 * k)])[0]
            self.paint(blob(rng, cx, cy, self.u * rng.uniform(0.75, 1.1), self.u * 0.35, 0.08),
                       surface, 0.15, shade=1)

    def ring(self):
        """A stiff ring or wide round collar around an open neck: hoop of metal,
        plastic or quilted cloth, seen from slightly above or in front."""
        rng, u = self.rng, self.u
        y = self.shoulder_y - self.slope * 0.4 + rng.uniform(-0.1, 0.3)
        w, h = rng.uniform(0.8, 1.55), rng.uniform(0.3, 0.85)
        x0, y0 = self.body([(rng.normal(0, 0.08), y)])[0]
        angle = self.lean + rng.normal(0, 0.12)
        base = np.full(3, rng.uniform(0.05, 0.9)) if self.chance(0.6) else any_colour(rng)
        outer = ellipse(x0, y0, w * u, h * u, angle)
        metal = self.sheen(base, x0, y0)
        self.paint(outer, metal, 0.06, shade=1)
        t = rng.uniform(0.72, 0.93)
        lining = self.other_cloth * rng.uniform(0.2, 1)
        self.paint(ellipse(x0, y0 - 0.02 * u, w * u * t, h * u * t, angle), lining, 0.25, shade=1.2)
        if self.chance(0.5):
            for k in range(rng.integers(1, 3)):
                s = t * (0.9 - 0.15 * k)
                self.paint(ellipse(x0, y0, w * u * s, h * u * s, angle),
                           any_colour(rng) * rng.uniform(0.1, 1), 0.1)
        if self.chance(0.5):
            self.turtleneck()
        else:
            self.neck()
        depth = rng.uniform(0.08, 0.3)
        low, hi = (ellipse(x0, y0 + d * u, w * u * s, h * u * s, angle, 0.0, np.pi)
                   for d, s in ((depth, 1.0), (0, t)))
        self.paint(np.concatenate([low, hi[::-1]]), metal, 0.07, shade=1.2)
        if self.chance(0.5):
            mid = ellipse(x0, y0 + depth * u * 0.6, w * u * 0.97, h * u * 0.97, angle, 0.1, 3.0)
            self.canvas.stroke(mid, u * rng.uniform(0.01, 0.04), any_colour(rng))

    def sheen(self, base, x, y):
        """Returns a metal-like surface: brightness that varies with the angle
        seen from (x, y), with narrow highlights."""
        px, py = coordinates(self.size)
        angle = np.arctan2(py - y, px - x)
        rng = self.rng
        tone = 0.7 + 0.35 * np.sin(angle * rng.integers(1, 4) + rng.uniform(0, 6.28))
        tone += 0.7 * np.exp(-((np.mod(angle + rng.uniform(0, 6), 6.28) - 3) / 0.25) ** 2)
        return np.clip(base * tone[..., None] + 0.12 * (tone[..., None] > 1.05), 0, 1)

    def lapels(self):
        """A jacket open over a shirt."""
        rng = self.rng
        y = self.shoulder_y - self.slope * 0.35
        shirt = self.other_cloth if self.chance(0.7) else any_colour(rng)
        wide, deep = rng.uniform(0.45, 1.0), rng.uniform(1.2, 4.5)
        self.paint(self.body([(-wide, y - 0.2), (wide, y - 0.2), (0.05, y + deep),
                              (-0.05, y + deep)]), shirt, 0.1)
        choice = rng.integers(3)
        (self.shirt_collar, self.neck, self.turtleneck)[choice]()
        dark = self.cloth * rng.uniform(0.6, 1.1)
        for k in (-1, 1):
            p = [(k * wide * 0.8, y - 0.45), (k * (wide + 0.45), y + 0.3),
                 (k * (wide * 0.7 + 0.45), y + deep * 0.35), (k * 0.05, y + deep)]
            self.paint(self.body(p), np.clip(dark, 0, 1), 0.06)

    def hood_down(self):
        rng = self.rng
        y = self.shoulder_y - self.slope * 0.45
        x0, y0 = self.body([(0, y)])[0]
        u = self.u
        self.paint(blob(rng, x0, y0, u * rng.uniform(1.0, 1.5), u * rng.uniform(0.45, 0.75), 0.08),
                   self.cloth * 0.9, 0.2, shade=1)
        self.paint(blob(rng, x0, y0, u * 0.75, u * 0.4, 0.06), self.cloth * 0.5, 0.1)
        self.neck()
        for k in (-1, 1):
            x = k * rng.uniform(0.25, 0.5)
            p = self.body([(x, y + 0.3), (x * 1.1, y + 1), (x * rng.uniform(0.8, 1.3), y + 1.8)])
            self.canvas.stroke(smooth_open(p), u * 0.035, any_colour(rng))

    def fur(self):
        rng, u = self.rng, self.u
        y = self.shoulder_y - self.slope * 0.35
        colour = hair_colour(rng)
        surface = np.clip(colour * (0.5 + noise(rng, self.size, 50, 2))[..., None], 0, 1)
        self.neck()
        for k in np.linspace(-1, 1, 9):
            x, yy = self.body([(k * 0.95, y + 0.55 * (1 - k * k) - 0.25)])[0]
            self.paint(blob(rng, x, yy, u * 0.36, u * 0.36, 0.2, 13), surface, 0.1)

    def necklace(self):
        rng = self.rng
        w, deep = rng.uniform(0.45, 0.8), rng.uniform(0.4, 2.5)
        t = np.linspace(-1, 1, 15)
        y = self.shoulder_y - self.slope * 0.3
        p = self.body(np.stack([t * w, y + deep * (1 - np.abs(t) ** rng.uniform(1, 3))], 1))
        self.canvas.stroke(p, self.u * rng.uniform(0.015, 0.07), any_colour(rng))
        if self.chance(0.5):
            x, yy = p[7]
            self.paint(box(x, yy, self.u * rng.uniform(0.05, 0.3), self.u * rng.uniform(0.05, 0.4)),
                       any_colour(rng), 0.03)

    def trimmings(self):
        """Straps, badges, zips, buttons, pockets, labels on the torso."""
        rng, u = self.rng, self.u
        y = self.shoulder_y
        inside = self.torso_mask
        if self.chance(0.3):
            for k in ((-1, 1) if self.chance(0.6) else (rng.choice([-1, 1]),)):
                a, b = k * rng.uniform(0.5, 1.2), k * rng.uniform(-0.6, 1.3)
                p = self.body([(a, y - 0.8), (a * 1.05, y + 0.6), (b, y + 3), (b, y + 9)])
                self.canvas.stroke(smooth_open(p), u * rng.uniform(0.05, 0.22),
                                   pattern(rng, self.size, u * 0.3), inside=inside)
        if self.chance(0.35):
            x = rng.normal(0, 0.15)
            p = self.body([(x, y + 0.1), (x + rng.normal(0, 0.1), y + 3), (x, y + 8)])
            self.canvas.stroke(smooth_open(p), u * rng.uniform(0.02, 0.14), any_colour(rng),
                               inside=inside)
            for k in range(rng.integers(0, 8)):
                bx, by = self.body([(x, y + 0.3 + 0.6 * k)])[0]
                self.paint(ellipse(bx, by, u * 0.06, u * 0.06), any_colour(rng), 0.02, inside=inside)
        for _ in range(rng.choice([0, 0, 1, 2, 4])):
            self.badge(rng.uniform(-0.85, 0.85) * self.shoulders, y + rng.uniform(0.3, 3.5), inside)
        if self.chance(0.3):
            for k in (-1, 1):
                px, py = self.body([(k * self.shoulders * 0.5, y + rng.uniform(1, 2.5))])[0]
                w, h = u * rng.uniform(0.25, 0.5), u * rng.uniform(0.25, 0.5)
                self.canvas.shadow(box(px, py + 2, w * 1.05, h * 1.05, self.lean), 0.35, 1.5, inside)
                self.paint(box(px, py, w, h, self.lean), self.cloth * rng.uniform(0.8, 1.1), 0.05,
                           inside=inside)
        if self.chance(0.2):
            self.print_()

    def badge(self, x, y, inside):
        """A patch: disc, shield or label with rims, marks and letters."""
        rng, u = self.rng, self.u
        px, py = self.body([(x, y)])[0]
        r = u * rng.uniform(0.12, 0.55)
        round_ = self.chance(0.5)
        aspect = rng.uniform(0.8, 1.2) if round_ else rng.uniform(0.3, 1)
        for k in range(rng.integers(1, 4)):
            q = r * (1 - 0.15 * k)
            outline = ellipse(px, py, q, q * aspect, self.lean) if round_ else \
                box(px, py, q, q * aspect, self.lean, 0.15)
            self.paint(outline, any_colour(rng), 0.03, inside=inside)
        for _ in range(rng.integers(0, 8)):
            dx, dy = rng.uniform(-0.5, 0.5, 2) * (r, r * aspect)
            w = r * rng.uniform(0.05, 0.4)
            outline = box(px + dx, py + dy, w, w * rng.uniform(0.15, 1), rng.normal(0, 0.3)) \
                if self.chance(0.6) else blob(rng, px + dx, py + dy, w, w, 0.3)
            self.paint(outline, any_colour(rng), inside=inside)

    def print_(self):
        """A large print on the chest: blobs and rows of letter-like bars."""
        rng, u = self.rng, self.u
        colour = any_colour(rng)
        y = self.shoulder_y + rng.uniform(0.8, 2)
        for row in range(rng.integers(1, 3)):
            for k in range(rng.integers(3, 9)):
                x0, y0 = self.body([(-0.9 + 0.25 * k, y + 0.5 * row)])[0]
                self.paint(box(x0, y0, u * 0.04, u * 0.16), colour)
                self.paint(box(x0 + u * 0.06, y0 + rng.uniform(-.15, .15) * u, u * 0.07, u * 0.03),
                           colour)

    # --- head -----------------------------------------------------------------

    def face(self):
        rng, u, w = self.rng, self.u, self.head_width
        jaw, chin = rng.uniform(0.6, 0.95), rng.uniform(0.3, 0.5)
        half = [(0, -1.0), (w * 0.6, -0.9), (w * 0.95, -0.5), (w, -0.05), (w * 0.95, 0.35),
                (w * jaw, 0.7), (w * chin, 0.95)]
        points = half + [(0, 1.0)] + [(-x, y) for x, y in half[:0:-1]]
        self.face_outline = smooth(self.head(points))
        for k in (-1, 1):
            if self.chance(0.85):
                x, y = self.head([(k * (w + 0.03) - self.turn * 0.08, rng.uniform(0.0, 0.1))])[0]
                ear = ellipse(x, y, u * 0.13, u * 0.24, self.tilt + k * 0.15)
                self.paint(ear, self.skin_surface, 0.07, shade=1)
                self.canvas.shadow(ellipse(x, y, u * 0.06, u * 0.13, self.tilt), 0.3, u * 0.04)
                if self.chance(0.15):
                    self.paint(ellipse(x, y + u * 0.28, u * 0.05, u * rng.uniform(0.04, 0.2)),
                               any_colour(rng))
        self.paint(self.face_outline, self.skin_surface, rng.uniform(0.2, 0.4),
                   shade=rng.uniform(0.5, 1.1))
        self.face_mask = self.canvas.whole(self.face_outline)
        self.features()

    def features(self):
        rng, u = self.rng, self.u
        t = self.turn * 0.35
        spread, line = rng.uniform(0.28, 0.36), rng.uniform(-0.05, 0.1)
        dark = self.skin * 0.35
        soft = u * 0.03
        for k in (-1, 1):
            cx = k * spread * (1 - 0.25 * abs(self.turn)) + t
            x, y = self.head([(cx, line)])[0]
            self.canvas.shadow(ellipse(x, y - u * 0.05, u * 0.22, u * 0.15, self.tilt),
                               rng.uniform(0.05, 0.35), u * 0.07, self.face_mask)
            opening = rng.uniform(0.03, 0.085)
            self.paint(ellipse(x, y, u * 0.15, u * opening, self.tilt), (0.9, 0.88, 0.86))
            ix = x + self.turn * u * 0.05
            iris = hsv(rng.choice([0.07, 0.08, 0.55, 0.3]), 0.6, rng.uniform(0.1, 0.5))
            self.paint(ellipse(ix, y, u * 0.065, u * min(opening, 0.065)), iris)
            self.paint(ellipse(ix, y, u * 0.03, u * min(opening, 0.03)), (0.02, 0.02, 0.02))
            arc = ellipse(x, y + u * 0.02, u * 0.17, u * (opening + 0.03), self.tilt, 3.3, 6.1, 9)
            self.canvas.stroke(arc, u * 0.018, dark)
            arch = rng.uniform(0, 0.08)
            brow = self.head([(cx - 0.19, line - 0.19), (cx, line - 0.22 - arch),
                              (cx + 0.19, line - 0.19)])
            self.canvas.stroke(brow, u * rng.uniform(0.015, 0.05), self.hair * 0.8, 0.85,
                               self.face_mask)
        nose_y = line + rng.uniform(0.35, 0.48)
        nx = t * 1.25
        side = 1 if self.canvas.light[0] < 0 else -1
        nose = self.head([(nx * 0.8, line), (nx + side * 0.1, nose_y - 0.08), (nx + side * 0.15, nose_y),
                          (nx, nose_y + 0.04)])
        self.canvas.shadow(nose, rng.uniform(0.1, 0.35), soft, self.face_mask)
        for k in (-1, 1):
            x, y = self.head([(nx + k * 0.07, nose_y + 0.01)])[0]
            self.canvas.shadow(ellipse(x, y, u * 0.04, u * 0.025), 0.5, soft * 0.5, self.face_mask)
        x, y = self.head([(nx * 0.9, nose_y - 0.05)])[0]
        self.canvas.glow(ellipse(x, y, u * 0.06, u * 0.09), (1, 0.97, 0.93), rng.uniform(0, 0.3), soft)
        self.mouth(nx * 0.8, nose_y + rng.uniform(0.2, 0.3))
        for k in (-1, 1):
            x, y = self.head([(k * 0.42 + t * 0.5, nose_y - 0.02)])[0]
            self.canvas.glow(ellipse(x, y, u * 0.2, u * 0.16), np.clip(self.skin * (1.15, .75, .7), 0, 1),
                             rng.uniform(0, 0.35), u * 0.08)
        if self.chance(0.22):
            self.beard(nose_y)
        if self.chance(0.25):
            self.glasses(spread, line, t)
        if self.chance(0.05):
            p = [(-0.7, nose_y - 0.25), (nx, nose_y - 0.4), (0.7, nose_y - 0.25), (0.6, 0.75), (0, 1.02),
                 (-0.6, 0.75)]
            self.paint(smooth(self.head(p)), any_colour(rng), 0.2)

    def mouth(self, x, y):
        rng, u = self.rng, self.u
        w, smile, open_ = rng.uniform(0.2, 0.34), rng.uniform(-0.02, 0.09), rng.uniform(0, 0.09)
        lips = np.clip(self.skin * (0.95, 0.6, 0.6), 0, 1) if self.chance(0.7) else \
            hsv(rng.uniform(-0.06, 0.03), 0.7, rng.uniform(0.4, 0.8))
        h = rng.uniform(0.03, 0.07) + open_
        outer = smooth(self.head([(x - w, y - smile), (x, y - h * 0.7), (x + w, y - smile), (x, y + h)]))
        self.paint(outer, lips, 0.03)
        inner = smooth(self.head([(x - w * .8, y - smile * .8), (x, y - open_ * 0.3),
                                  (x + w * .8, y - smile * .8), (x, y + open_)]))
        self.paint(inner, (0.92, 0.9, 0.86) if self.chance(0.6) else (0.2, 0.08, 0.08))

    def beard(self, y):
        rng, w = self.rng, self.head_width
        length = rng.uniform(0.95, 1.3)
        p = [(-w, 0.1), (-w * 0.75, y), (-0.3, y + 0.12), (0.3, y + 0.12), (w * 0.75, y), (w, 0.1),
             (w * 0.95, 0.6), (w * 0.5, length), (-w * 0.5, length), (-w * 0.95, 0.6)]
        self.paint(smooth(self.head(p)), self.hair_surface, 0.1, opacity=rng.uniform(0.3, 1),
                   soft=self.u * 0.05)
        self.mouth(self.turn * 0.3, y + 0.27)

    def glasses(self, spread, line, t):
        rng, u = self.rng, self.u
        frame, r = any_colour(rng) * rng.uniform(0, 1), rng.uniform(0.18, 0.28)
        tinted = rng.random()
        corner = rng.uniform(0.2, 0.9)
        for k in (-1, 1):
            x, y = self.head([(k * spread + t, line + 0.03)])[0]
            outline = box(x, y, u * r, u * r * 0.8, self.tilt, corner)
            inner = box(x, y, u * (r - 0.04), u * (r * 0.8 - 0.04), self.tilt, corner)
            if tinted < 0.3:
                self.paint(outline, frame * 0.4, opacity=rng.uniform(0.4, 1))
            self.paint(outline, frame, holes=[inner])
            side = self.head([(k * (spread + r) + t, line), (k * (self.head_width + 0.02), line - 0.03)])
            self.canvas.stroke(side, u * 0.025, frame)
        self.canvas.stroke(self.head([(t - spread + r, line), (t + spread - r, line)]), u * 0.025, frame)

    # --- hair and headgear ------------------------------------------------------

    def choose_hair(self):
        """Draws lots for the shape of the hair: a profile of radii in u."""
        rng = self.rng
        self.style = rng.choice(['bald', 'short', 'short', 'short', 'bob', 'bob', 'long', 'long',
                                 'curly', 'bun', 'tail', 'parted', 'quiff'])
        self.volume = {'bald': 0.0, 'short': rng.uniform(0.08, 0.3), 'bob': rng.uniform(0.15, 0.45),
                       'curly': rng.uniform(0.3, 0.9), 'quiff': rng.uniform(0.1, 0.25)} \
            .get(self.style, rng.uniform(0.1, 0.3))

    def hair_behind(self):
        """Hair that hangs or stands behind the head and the neck."""
        rng, u, w, v = self.rng, self.u, self.head_width, self.volume
        if self.style == 'long':
            low, wide = rng.uniform(1.2, 3.4), rng.uniform(0.1, 0.6)
            half = [(0, -1 - v), (w * 0.7 + v, -0.8 - v * 0.5), (w + v, 0),
                    (w + v + wide * 0.5, 0.9), (w + v + wide * rng.uniform(0.3, 1), low), (w * 0.4, low + 0.3)]
        elif self.style == 'bob':
            low = rng.uniform(0.45, 1.15)
            half = [(0, -1 - v), (w * 0.7 + v, -0.8 - v * 0.6), (w + v, -0.1),
                    (w + v * rng.uniform(0.6, 1.3), low * 0.6), (w * rng.uniform(0.7, 1), low)]
        elif self.style == 'curly':
            x, y = self.head([(0, -0.35)])[0]
            self.paint(blob(rng, x, y, u * (w + v), u * (0.85 + v), 0.07, 17), self.hair_surface * 0.85, 0.2)
            return
        elif self.style == 'bun':
            x, y = self.head([(rng.normal(0, 0.2), -1.15 - v)])[0]
            r = u * rng.uniform(0.25, 0.5)
            self.paint(blob(rng, x, y, r, r, 0.08), self.hair_surface, 0.15)
            return
        elif self.style == 'tail':
            k = rng.choice([-1, 1])
            p = [(k * 0.5, -0.9), (k * (w + 0.3), -0.7), (k * (w + 0.55), 0.3), (k * (w + 0.2), 1.6),
                 (k * (w + 0.05), 0.3)]
            self.paint(smooth(self.head(p)), self.hair_surface * 0.9, 0.12)
            return
        else:
            return
        j = lambda: rng.normal(0, 0.04)
        points = [(x + j(), y + j()) for x, y in half] + [(-x + j(), y + j()) for x, y in half[:0:-1]]
        self.paint(smooth(self.head(points)), self.hair_surface * 0.8, 0.2)

    def hair_front(self):
        rng, w, v = self.rng, self.head_width, self.volume
        if self.style == 'bald':
            if self.chance(0.5):
                x, y = self.head([(rng.normal(0, 0.2), -0.75)])[0]
                self.canvas.glow(ellipse(x, y, self.u * 0.25, self.u * 0.12), (1, 1, 1), 0.3, self.u * 0.1)
            return
        top = -1 - v * rng.uniform(0.7, 1.1)
        low = {'short': rng.uniform(-0.3, 0.25), 'bob': rng.uniform(0.3, 0.9), 'curly': rng.uniform(-0.1, 0.4),
               'long': rng.uniform(0.3, 1.2)}.get(self.style, rng.uniform(-0.3, 0.2))
        line = rng.uniform(-0.72, -0.35)
        side = w * rng.uniform(0.72, 0.95)
        part = rng.uniform(-0.4, 0.4)
        fringe = rng.normal(0, 0.06, 5)
        if self.style in ('parted', 'quiff'):
            fringe[2] -= 0.15
        outer = w + v * rng.uniform(0.3, 1)
        lift = 0.15 if self.style == 'quiff' else 0
        p = [(-outer, low), (-outer * 1.04, -0.35), (-w * 0.75 - v * 0.6, -0.78 - v * 0.5),
             (part * 0.7, top - lift), (w * 0.75 + v * 0.6, -0.78 - v * 0.5), (outer * 1.04, -0.35), (outer, low),
             (side, low * 0.7), (side * 0.97, line * 0.4 + fringe[0]), (w * 0.55, line + fringe[1]),
             (part, line - 0.08 + fringe[2]), (-w * 0.55, line + fringe[3]), (-side * 0.97, line * 0.4 + fringe[4]),
             (-side, low * 0.7)]
        p = np.array(p) + rng.normal(0, 0.025, (len(p), 2))
        outline = smooth(self.head(p))
        self.canvas.shadow(outline + (0, self.u * 0.05), 0.3, self.u * 0.05, self.face_mask)
        self.paint(outline, self.hair_surface, 0.18, shade=0.8, soft=self.u * rng.choice([0, 0.02, 0.04]))
        mask = self.canvas.whole(outline)
        for _ in range(rng.integers(3, 25)):
            a = rng.uniform(-1, 1)
            q = self.head([(part * 0.5 + a * 0.2, top), (a * (w + v) * 0.8, -0.8),
                           (a * (w + v), rng.uniform(-0.5, 0.5))])
            tone = np.clip(self.hair * rng.uniform(0.5, 1.7), 0, 1)
            loose = self.chance(0.15)
            self.canvas.stroke(smooth_open(q), self.u * rng.uniform(0.01, 0.03), tone, 0.6,
                               None if loose else mask)

    def headgear(self):
        rng, w, u = self.rng, self.head_width, self.u
        kind = rng.integers(6)
        surface = cloth(rng, self.size, u)
        if kind == 0:                                   # cap or brimmed hat
            brim, height = rng.uniform(0.9, 1.8), rng.uniform(0.4, 0.9)
            self.paint(smooth(self.head([(-w * 1.08, -0.45), (-w, -0.9), (-w * .5, -0.75 - height),
                                         (w * .5, -0.75 - height), (w, -0.9), (w * 1.08, -0.45),
                                         (0, -0.4)])), surface, 0.2, shade=0.9)
            x, y = self.head([(rng.normal(0, 0.2), -0.47)])[0]
            self.paint(ellipse(x, y, u * brim, u * rng.uniform(0.08, 0.25), self.tilt), surface * 0.8, 0.05)
        elif kind == 1:                                 # knitted hat
            top = -1.1 - rng.uniform(0.1, 0.5)
            self.paint(smooth(self.head([(-w * 1.1, -0.2), (-w * 1.1, -0.7), (0, top), (w * 1.1, -0.7),
                                         (w * 1.1, -0.2), (0, -0.45)])), surface, 0.2, shade=0.9)
            if self.chance(0.5):
                x, y = self.head([(0, top)])[0]
                self.paint(blob(rng, x, y, u * 0.25, u * 0.25, 0.1), any_colour(rng), 0.1)
        elif kind == 2:                                 # helmet
            self.paint(smooth(self.head([(-w * 1.2, 0.2), (-w * 1.25, -0.6), (-w * .6, -1.3), (w * .6, -1.3),
                                         (w * 1.25, -0.6), (w * 1.2, 0.2), (w * 0.85, 0.1), (w * 0.8, -0.4),
                                         (0, -0.6), (-w * 0.8, -0.4), (-w * 0.85, 0.1)], ), 8),
                       surface if self.chance(0.4) else any_colour(rng), 0.25, shade=1.2)
            x, y = self.head([(rng.normal(0, 0.3), -0.95)])[0]
            self.canvas.glow(ellipse(x, y, u * 0.25, u * 0.12), (1, 1, 1), 0.6, u * 0.05)
        elif kind == 3:                                 # hood or headscarf
            low = rng.uniform(0.9, 1.6)
            outer = smooth(self.head([(0, -1.25), (w, -1), (w * 1.35, -0.2), (w * 1.4, 0.7), (w * 1.3, low),
                                      (0, low + 0.4), (-w * 1.3, low), (-w * 1.4, 0.7), (-w * 1.35, -0.2),
                                      (-w, -1)]))
            inner = smooth(self.head([(0, -0.8), (w * 0.75, -0.5), (w * 0.9, 0.1), (w * 0.7, 0.8), (0, 1.05),
                                      (-w * 0.7, 0.8), (-w * 0.9, 0.1), (-w * 0.75, -0.5)]))
            self.paint(outer, surface, 0.15, holes=[inner], shade=0.9)
        else:                                           # headphones or headband
            colour = any_colour(rng) * rng.uniform(0.1, 1)
            arc = self.head(ellipse(0, 0, w * 1.12, 1.2, 0, 3.2, 6.22, 20))
            self.canvas.stroke(arc, u * rng.uniform(0.04, 0.12), colour)
            if kind == 4:
                for k in (-1, 1):
                    x, y = self.head([(k * w * 1.08, 0.05)])[0]
                    self.paint(ellipse(x, y, u * 0.2, u * 0.32, self.tilt), colour, 0.08, shade=1)

    # --- held things ------------------------------------------------------------

    def held(self, at):
        """Something held at `at` (u) or against the body, drawn before the hand."""
        rng, u = self.rng, self.u
        x, y = self.body([at])[0]
        kind = rng.integers(8)
        r = u * rng.uniform(0.4, 1.3)
        if kind <= 1:
            self.globe(x, y, u * rng.uniform(0.5, 2.1))
        elif kind == 2:                                 # cup, can, bottle
            h = r * rng.uniform(0.7, 1.8)
            self.paint(box(x, y, r * 0.5, h * 0.6, rng.normal(0, 0.2), 0.1), any_colour(rng), 0.15, shade=1)
            self.badge_at(x, y, r * 0.3)
        elif kind == 3:                                 # book, tablet, sheet, sign
            surface = pattern(rng, self.size, r * 0.5) if self.chance(0.5) else any_colour(rng)
            self.paint(box(x, y, r * rng.uniform(0.6, 1.4), r * rng.uniform(0.6, 1.4), rng.normal(0, 0.4)),
                       surface, 0.03)
            self.badge_at(x, y, r * 0.5)
        elif kind == 4:                                 # rod, instrument neck, tool
            a = rng.uniform(0, 6.28)
            d = np.array([np.cos(a), np.sin(a)]) * r * 2
            self.paint(limb((x, y) - d, (x, y) + d, u * rng.uniform(0.05, 0.2), u * rng.uniform(0.05, 0.2)),
                       any_colour(rng), 0.08, shade=1)
            if self.chance(0.5):
                self.paint(blob(rng, *((x, y) + d), r * 0.6, r * 0.7, 0.1), any_colour(rng), 0.15, shade=1)
        elif kind == 5:                                 # flowers, animal, bag
            surface = cloth(rng, self.size, r)
            self.paint(blob(rng, x, y, r, r * rng.uniform(0.7, 1.5), 0.15), surface, 0.25, shade=1)
            for _ in range(rng.integers(0, 9)):
                dx, dy = rng.normal(0, 0.5, 2) * r
                self.paint(blob(rng, x + dx, y + dy, r * 0.25, r * 0.25, 0.2), any_colour(rng), 0.08)
        else:                                           # phone, box
            self.paint(box(x, y, r * rng.uniform(0.3, 0.9), r * rng.uniform(0.5, 0.9), rng.normal(0, 0.3), 0.1),
                       any_colour(rng) * rng.uniform(0.1, 1), 0.06, shade=1)

    def badge_at(self, x, y, r):
        for _ in range(self.rng.integers(0, 4)):
            dx, dy = self.rng.uniform(-0.7, 0.7, 2) * r
            self.paint(blob(self.rng, x + dx, y + dy, r * 0.4, r * 0.3, 0.2), any_colour(self.rng))

    def globe(self, x, y, r):
        """A ball, helmet or bowl: dull or glossy, with rims, bands and glints."""
        rng = self.rng
        colour = any_colour(rng) * (rng.uniform(0, 0.2) if self.chance(0.5) else 1)
        aspect, angle = rng.uniform(0.85, 1.2), rng.uniform(0, 3.14)
        outline = blob(rng, x, y, r, r * aspect, 0.02, 14)
        inside = self.canvas.whole(outline)
        surface = colour if self.chance(0.7) else self.sheen(colour, x + r, y - r)
        self.canvas.paint(outline, surface, r * rng.uniform(0.1, 0.4), shade=rng.uniform(0.3, 1.3))
        if self.chance(0.6):                            # a shell around a visor, or a band
            k = rng.uniform(0.75, 0.92)
            dx, dy = rng.normal(0, 0.12, 2) * r
            shell = any_colour(rng) if self.chance(0.5) else np.full(3, rng.uniform(0.5, 1))
            self.canvas.paint(outline, shell, r * 0.1, shade=1, inside=inside,
                              holes=[ellipse(x + dx, y + dy, r * k, r * k * aspect, angle)])
        for _ in range(rng.integers(0, 4)):
            dx, dy = rng.uniform(-0.6, 0.6, 2) * r
            w, h = r * rng.uniform(0.03, 0.25, 2)
            glint = box(x + dx, y + dy, w, h, rng.uniform(0, 3), rng.uniform(0, 0.8))
            self.canvas.glow(glint, (1, 1, 1), rng.uniform(0.3, 1), r * rng.choice([0, 0.02, 0.08]))
        if self.chance(0.4):
            arc = ellipse(x, y, r * 0.85, r * 0.85 * aspect, angle, 0, rng.uniform(1, 3), 15)
            self.canvas.stroke(arc, r * 0.03, np.full(3, rng.uniform(0.5, 1)), 0.5)
        for _ in range(rng.integers(0, 3)):
            a = rng.uniform(0, 6.28)
            q = r * rng.uniform(0.05, 0.2)
            self.canvas.paint(ellipse(x + r * np.cos(a) * .93, y + r * np.sin(a) * .93, q, q),
                              any_colour(rng), q * 0.3)

    # --- all of it ------------------------------------------------------------

    def draw(self):
        rng = self.rng
        self.choose_hair()
        self.hair_behind()
        self.torso()
        sides = [-1, 1]
        rng.shuffle(sides)
        arms = [k for k in sides if self.chance(0.6)]
        before = self.chance(0.5)
        for k in arms if before else ():
            self.arm_with_thing(k)
        self.neckline()
        self.trimmings()
        self.face()
        self.hair_front()
        if self.chance(0.22):
            self.headgear()
        for k in () if before else arms:
            self.arm_with_thing(k)
        if self.chance(0.4):
            self.held((rng.uniform(-1.6, 1.6) * self.shoulders, self.shoulder_y + rng.uniform(1.8, 4.5)))
        if self.style == 'long' and self.chance(0.5):
            for k in (-1, 1):
                w = self.head_width
                p = [(k * w * 0.95, -0.3), (k * (w + self.volume), 0.2), (k * (w + 0.35), rng.uniform(1.3, 3)),
                     (k * w * 0.7, rng.uniform(1.3, 2.6)), (k * w * 0.9, 0.6)]
                self.paint(smooth(self.head(p)), self.hair_surface, 0.12)
        return np.clip(self.canvas.colour, 0, 1), np.clip(self.canvas.alpha, 0, 1)

    def arm_with_thing(self, side):
        hand = self.arm(side)
        if hand is not None and self.chance(0.35):
            self.held((hand[0], hand[1]))
            self.hand(hand, self.rng.uniform(0, 6.28))


def smooth_open(points, steps=5):
    """Returns an open Catmull-Rom curve through points (n, 2)."""
    p = np.asarray(points, float)
    closed = smooth(np.concatenate([p[:1], p, p[-1:]]), steps)
    return closed[steps:steps * len(p) + 1]


def figure(rng, size):
    """Returns colour (size, size, 3) and coverage (size, size) of one figure."""
    return Figure(rng, size).draw()
