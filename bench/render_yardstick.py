# SPDX-License-Identifier: BSD-3-Clause
"""quorvel render's top view against the time of reading the same file: the picture should cost
no more than the read.

Generates a LAS 1.4 point-format-6 file of N points (10 per square metre, classes 1 to 6), then
times, best of five, in one process:
  - quorvel.read of the file (the yardstick);
  - quorvel.render_array of the cloud by classification at 0.5 m pixels, and with --shade;
  - quorvel.render to a PNG (with its world file);
and, as whole processes, `quorvel info --brief` and `quorvel render IN -o OUT.png --pixel 0.5`.
Prints points/s of each and the ratio render / read.
Usage: python3 bench/render_yardstick.py QUORVEL WORKDIR [N ...]   (default N: 1000000)
"""

import pathlib
import subprocess
import sys

import quorvel
from tile_yardstick import make_las
from timing import best


def main():
    host, work = sys.argv[1], pathlib.Path(sys.argv[2])
    work.mkdir(parents=True, exist_ok=True)
    for n in [int(a) for a in sys.argv[3:]] or [1000000]:
        las = work / f"render_{n}.las"
        make_las(las, n)
        cloud = quorvel.read(str(las))
        rows = [("read (yardstick)", best(lambda: quorvel.read(str(las))))]
        rows.append(("render_array 0.5 m", best(lambda: quorvel.render_array(cloud, pixel=0.5))))
        rows.append(("render_array 0.5 m --shade",
                     best(lambda: quorvel.render_array(cloud, pixel=0.5, shade=True))))
        rows.append(("render to PNG", best(lambda: quorvel.render(cloud, str(work / "r.png"),
                                                                   pixel=0.5))))
        rows.append(("quorvel render (process)", best(lambda: subprocess.run(
            [host, "render", str(las), "-o", str(work / "p.png"), "--pixel", "0.5", "-q"],
            check=True), 3)))
        rows.append(("quorvel info --brief (process)", best(lambda: subprocess.run(
            [host, "info", "--brief", str(las)], check=True, capture_output=True), 3)))
        print(f"{n} points")
        for name, seconds in rows:
            print(f"  {name:34s} {seconds:7.3f} s {n / seconds / 1e6:8.1f} M points/s "
                  f"{seconds / rows[0][1]:6.2f} x read")


if __name__ == "__main__":
    main()
