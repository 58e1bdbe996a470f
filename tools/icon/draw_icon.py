#!/usr/bin/python3
"""Draws the program's icon: a volume with a check mark, at every size that Windows asks for.

Usage: draw_icon.py OUTPUT.ico

Each size is drawn on its own, on a grid of its own pixels and four to sixteen times finer, so that
edges that matter fall on whole pixels; small sizes drop detail instead of blurring it.
"""

import sys

from PIL import Image, ImageChops, ImageDraw

SIZES = (16, 32, 48, 64, 128)

STEEL_LIGHT = (141, 180, 222)
STEEL_DARK = (38, 84, 140)
LID = (190, 215, 240)
LID_EDGE = (230, 241, 252)
OUTLINE = (24, 54, 94)
SEAM_SHADE = (22, 56, 102)
BADGE_LIGHT = (76, 190, 92)
BADGE_DARK = (24, 128, 52)
CHECK = (255, 255, 255)


class Canvas:
    """A drawing in pixels of the final size, rendered finer and reduced at the end."""

    def __init__(self, size):
        self.size = size
        self.scale = max(4, 256 // size)
        self.image = Image.new("RGBA", (size * self.scale,) * 2, (0, 0, 0, 0))

    def mask(self, draw):
        """The area that `draw(pen, scaled)` fills."""
        mask = Image.new("L", self.image.size, 0)
        draw(ImageDraw.Draw(mask), lambda *points: [value * self.scale for value in points])
        return mask

    def fill(self, mask, first, last=None, horizontal=False):
        """Colours an area evenly, or from `first` to `last` across the area's own extent."""
        box = mask.getbbox()
        width, height = box[2] - box[0], box[3] - box[1]
        ramp = Image.linear_gradient("L").resize((height, width) if horizontal else (width, height))
        if horizontal:
            ramp = ramp.transpose(Image.Transpose.ROTATE_90)
        colour = Image.composite(Image.new("RGBA", ramp.size, (last or first) + (255,)),
                                 Image.new("RGBA", ramp.size, first + (255,)), ramp)
        self.image.paste(colour, box[:2], mask.crop(box))

    def erase(self, mask):
        self.image.putalpha(ImageChops.subtract(self.image.getchannel("A"), mask))

    def reduced(self):
        return self.image.reduce(self.scale)


def cylinder(left, top, right, bottom, lid):
    """The outline of an upright cylinder whose lid is an ellipse of height `lid`."""
    def draw(pen, scaled):
        ellipse(left, top, right, top + lid)(pen, scaled)
        rectangle(left, top + lid / 2, right, bottom - lid / 2)(pen, scaled)
        ellipse(left, bottom - lid, right, bottom)(pen, scaled)
    return draw


def ellipse(left, top, right, bottom):
    def draw(pen, scaled):
        left_in, top_in, right_in, bottom_in = scaled(left, top, right, bottom)
        pen.ellipse((left_in, top_in, right_in - 1, bottom_in - 1), fill=255)  # the pen includes the far edges
    return draw


def rectangle(left, top, right, bottom):
    def draw(pen, scaled):
        left_in, top_in, right_in, bottom_in = scaled(left, top, right, bottom)
        pen.rectangle((left_in, top_in, right_in - 1, bottom_in - 1), fill=255)
    return draw


def disc(x, y, radius):
    return ellipse(x - radius, y - radius, x + radius, y + radius)


def stroke(width, *points):
    """A line with round ends and corners."""
    def draw(pen, scaled):
        pen.line(scaled(*points), fill=255, width=round(scaled(width)[0]), joint="curve")
        for x, y in zip(points[::2], points[1::2]):
            disc(x, y, width / 2)(pen, scaled)
    return draw


def draw_volume(canvas):
    size = canvas.size
    line = 1 if size <= 48 else size / 48
    left, right = round(size * 0.09), round(size * 0.83)
    top, bottom = round(size * 0.05), round(size * 0.94)
    lid = round(size * 0.26)
    canvas.fill(canvas.mask(cylinder(left, top, right, bottom, lid)), OUTLINE)
    inner = canvas.mask(cylinder(left + line, top + line, right - line, bottom - line, lid - line))
    canvas.fill(inner, STEEL_LIGHT, STEEL_DARK, horizontal=True)

    # The seams between the platters follow the lid's lower edge.
    platters = 3 if size > 16 else 2
    pitch = (bottom - top - lid) / platters
    for seam in range(1, platters):
        y = round(top + seam * pitch)
        below = canvas.mask(ellipse(left, y, right, y + lid))
        above = canvas.mask(ellipse(left, y - line, right, y - line + lid))
        half = canvas.mask(rectangle(0, y + lid / 2 - line, size, size))
        canvas.fill(ImageChops.multiply(ImageChops.multiply(ImageChops.subtract(below, above), half), inner),
                    SEAM_SHADE)

    canvas.fill(canvas.mask(ellipse(left + line, top + line, right - line, top + lid - line)), LID_EDGE)
    if size >= 32:
        rim = line * 1.2
        canvas.fill(canvas.mask(ellipse(left + line + rim, top + line + rim * 0.8, right - line - rim,
                                        top + lid - line - rim * 0.5)), LID_EDGE, LID)


def draw_badge(canvas):
    size = canvas.size
    radius = size * (0.28 if size > 16 else 0.31)
    centre = size - radius
    canvas.erase(canvas.mask(disc(centre, centre, radius + max(1, size / 24))))
    canvas.fill(canvas.mask(disc(centre, centre, radius)), BADGE_LIGHT, BADGE_DARK)
    unit = radius / 10
    canvas.fill(canvas.mask(stroke(unit * (3 if size > 16 else 3.6),
                                   centre - unit * 4.8, centre + unit * 0.4,
                                   centre - unit * 1.4, centre + unit * 3.8,
                                   centre + unit * 4.8, centre - unit * 3.6)), CHECK)


def draw(size):
    canvas = Canvas(size)
    draw_volume(canvas)
    draw_badge(canvas)
    return canvas.reduced()


def main():
    images = [draw(size) for size in SIZES]
    # Bitmaps keep 32 bits a pixel for every reader; PNG images would not.
    images[-1].save(sys.argv[1], format="ICO", bitmap_format="bmp", append_images=images[:-1],
                    sizes=[image.size for image in images])


if __name__ == "__main__":
    main()
