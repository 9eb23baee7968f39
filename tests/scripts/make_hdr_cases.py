#!/usr/bin/python3
"""Regenerates the small hand-made Radiance files in tests/data/hdr/."""
import os

OUT = os.path.join(os.path.dirname(__file__), "..", "data", "hdr")
HEAD = b"#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n"


def rle_row(width, comps):  # scanline header, then each component's packets
    return bytes([2, 2, width >> 8, width & 255]) + b"".join(comps)


def lit(data):
    return bytes([len(data)] + list(data))


def run(n, v):
    return bytes([128 + n, v])


def save(name, data):
    open(os.path.join(OUT, name), "wb").write(data)


def good_rows():  # 4x2 image, every component of every row as one literal
    return b"".join(rle_row(4, [lit([10 * y + c * 3 + x + 1 for x in range(4)]) for c in range(4)]) for y in range(2))


save("blank_line_space.hdr", b"#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n \n-Y 2 +X 4\n" + good_rows())
save("blank_line_tab.hdr", b"#?RADIANCE\n\t\t\n-Y 2 +X 4\n" + good_rows())
save("blank_line_crlf.hdr", b"#?RADIANCE\r\nFORMAT=32-bit_rle_rgbe\r\n\r\n-Y 2 +X 4\r\n" + good_rows())
# A header line longer than 127 characters is seen in pieces.
save("long_header_line.hdr", b"#?RADIANCE\nCOMMENT=" + b"x" * 300 + b"\n\n-Y 2 +X 4\n" + good_rows())
save("primaries.hdr", HEAD.replace(b"\n\n", b"\nPRIMARIES= 0.64 0.33 0.3 0.6 0.15 0.06 0.3127 0.329\n\n")
     + b"-Y 2 +X 4\n" + good_rows())
save("primaries_partial.hdr", HEAD.replace(b"\n\n", b"\nPRIMARIES= 0.64 0.33 0.3\n\n")
     + b"-Y 2 +X 4\n" + good_rows())
save("no_resolution_line.hdr", HEAD)
save("malformed_resolution.hdr", HEAD + b"+X 4 -Y 2\n" + good_rows())
save("zero_width.hdr", HEAD + b"-Y 2 +X 0\n" + b"\0" * 8)
# Flat file whose first pixel reads 2, 2, 0, 4: taken as run-length rows.
save("flat_starting_2_2.hdr", HEAD + b"-Y 2 +X 4\n" + bytes([2, 2, 0, 4, 9, 9, 9, 130]) * 4)
save("flat_3x2.hdr", HEAD + b"-Y 2 +X 3\n" + bytes(range(100, 124)))
# Literal code 128 and run code 129 on a 130-pixel row.
comp = lit(list(range(128))) + run(1, 200) + run(1, 201)
save("literal_128_run_129.hdr", HEAD + b"-Y 1 +X 130\n" + rle_row(130, [comp] * 4))
save("scanline_width_plus_one.hdr", HEAD + b"-Y 2 +X 4\n" + rle_row(5, [lit([1, 2, 3, 4, 5])] * 4) * 2)
save("scanline_length_0.hdr", HEAD + b"-Y 2 +X 4\n" + bytes([2, 2, 0, 0]) + good_rows()[4:])
save("scanline_length_65535_first.hdr", HEAD + b"-Y 2 +X 4\n" + bytes([2, 2, 255, 255]) + good_rows()[4:])
rows = good_rows()
save("scanline_length_65535_second.hdr",
     HEAD + b"-Y 2 +X 4\n" + rows[:len(rows) // 2] + bytes([2, 2, 255, 255]) + rows[len(rows) // 2 + 4:])
save("packet_code_0.hdr", HEAD + b"-Y 1 +X 4\n" + rle_row(4, [bytes([0]) + bytes(4)] + [lit([1, 2, 3, 4])] * 3))
save("packet_past_width.hdr", HEAD + b"-Y 1 +X 4\n" + rle_row(4, [run(5, 7)] + [lit([1, 2, 3, 4])] * 3))
save("literal_past_width.hdr", HEAD + b"-Y 1 +X 4\n" + rle_row(4, [lit([1, 2, 3]), lit([4, 5])] + [lit([1, 2, 3, 4])] * 3))
save("truncated_scanline.hdr", HEAD + b"-Y 2 +X 4\n" + rows[:-3])
save("truncated_run_value.hdr", HEAD + b"-Y 1 +X 4\n" + rle_row(4, [lit([1, 2, 3, 4])] * 3) + bytes([132]))
save("truncated_flat.hdr", HEAD + b"-Y 3 +X 3\n" + bytes(range(100, 130)))
save("lying_height.hdr", HEAD + b"-Y 5 +X 4\n" + rows)
save("lying_width.hdr", HEAD + b"-Y 2 +X 6\n" + rows)
# Claims 2 GiB of pixels (32767 x 16385 run-length, 32768 x 16384 flat), holds one row.
save("claims_2gb_rle.hdr", HEAD + b"-Y 16385 +X 32767\n" + rle_row(32767, [run(127, 5) * 258 + run(1, 5)] * 4))
save("claims_2gb_flat.hdr", HEAD + b"-Y 16384 +X 32768\n" + bytes([200, 1, 2, 130]) * 64)
save("header_only_eof.hdr", HEAD + b"-Y 2 +X 4\n" + b"\2\2")
