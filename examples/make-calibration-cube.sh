#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Writes a print job to standard output: the perimeters and the zigzag infill of a hollow cube of
# 20 mm, about 200 kB of gcode. The same bytes on every machine.
LC_ALL=C exec awk '
function move(to_x, to_y) {
    extruded += sqrt((to_x - x) ^ 2 + (to_y - y) ^ 2) * per_mm
    x = to_x; y = to_y
    printf "G1 X%.3f Y%.3f E%.5f\n", x, y, extruded
}
function travel(to_x, to_y) {
    x = to_x; y = to_y
    printf "G0 X%.3f Y%.3f F7200\n", x, y
}
function square(inset,    low, high) {
    low = origin + inset; high = origin + size - inset
    travel(low, low)
    print "G1 F1800"
    move(high, low); move(high, high); move(low, high); move(low, low)
}
BEGIN {
    size = 20; origin = 65; layer = 0.2; width = 0.4
    per_mm = layer * width / (3.14159265 * (1.75 / 2) ^ 2)  # filament of 1.75 mm

    print "; calibration cube, 20 mm, layers of 0.2 mm"
    print "G21 ; millimetres"
    print "G90 ; absolute positions"
    print "M104 S215 ; extruder"
    print "G28 ; home"
    print "M109 S215 ; wait for the extruder"
    print "G92 E0"
    for (n = 1; n <= size / layer; n++) {
        printf "; layer %d\n", n
        printf "G1 Z%.3f F1200\n", n * layer
        square(0); square(width)
        # Full layers at the bottom and at the top, sparse ones between.
        gap = (n <= 4 || n > size / layer - 4) ? width : 0.8
        low = origin + 2 * width; high = origin + size - 2 * width
        travel(low, low)
        print "G1 F3000"
        side = 0
        for (at = low; at <= high + 1e-9; at += gap) {
            if (n % 2) { move(at, side ? high : low); move(at, side ? low : high) }
            else       { move(side ? high : low, at); move(side ? low : high, at) }
            side = !side
        }
        printf "M117 layer %d of %d\n", n, size / layer
    }
    print "M104 S0"
    print "G28 X Y"
    print "M84 ; motors off"
}'
