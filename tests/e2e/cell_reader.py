"""Reads the characters in a grid of small cells, as somebody would who knows the font.

Each character is drawn large by another renderer than the viewer's (Pillow, with FreeType) and
averaged down to the size of a cell, in a few sizes and places. A cell is read as the character
whose picture is most like its own, in shape: colours do not matter.
"""

import numpy
import PIL.Image
import PIL.ImageDraw
import PIL.ImageFont

FONT = "/usr/share/fonts/truetype/liberation/LiberationMono-Regular.ttf"
LARGE = 10  # times the cell
SIZES = (6, 7, 8)  # of the font, in eighths of the cell's height
SHIFTS_X = (-3, 0, 3)  # in tenths of a pixel
SHIFTS_Y = (-10, -5, 0, 5)


def shape(values):
    """Flat, without its mean, of length 1."""
    values = values.reshape(-1) - values.mean()
    length = numpy.linalg.norm(values)
    return values / length if length > 1e-6 else values * 0


class CellReader:
    def __init__(self, characters, width, height):
        self.width, self.height = width, height
        self.names, shapes = [], []
        for character in sorted(set(characters)):
            for size in SIZES:
                font = PIL.ImageFont.truetype(FONT, size * height * LARGE // 8)
                large = PIL.Image.new("L", (width * LARGE, height * LARGE), 0)
                left = (width * LARGE - font.getlength("M")) / 2
                PIL.ImageDraw.Draw(large).text((left, 0), character, 255, font=font)
                large = numpy.asarray(large, float)
                for x in SHIFTS_X:
                    for y in SHIFTS_Y:
                        small = numpy.roll(large, (y, x), (0, 1)).reshape(
                            height, LARGE, width, LARGE).mean((1, 3))
                        self.names.append(character)
                        shapes.append(shape(small))
        self.shapes = numpy.array(shapes)

    def read(self, picture, row, columns):
        """The characters of a picture's row of cells, whatever it has in each."""
        line = picture[row * self.height:(row + 1) * self.height].astype(float)
        colours, times = numpy.unique(line.reshape(-1, 3), axis=0, return_counts=True)
        ink = numpy.abs(line - colours[times.argmax()]).sum(axis=2)
        cells = [shape(ink[:, column * self.width:(column + 1) * self.width])
                 for column in range(columns)]
        best = (numpy.array(cells) @ self.shapes.T).argmax(axis=1)
        return "".join(self.names[i] for i in best)

    def share_read(self, picture, lines):
        """What share of the characters of {row: text}, blanks left out, is read right."""
        right = asked = 0
        for row, text in lines.items():
            if text:
                for character, read in zip(text, self.read(picture, row, len(text))):
                    right += character != " " and character == read
                    asked += character != " "
        return right / asked
