#!/usr/bin/env python3
"""Three plain-finger results from a KR7 scanner, with their read-out.

Captures one result per placement of the finger, prints each with the
share of the platen the finger covers and its ridge contrast (as
`kr7 capture` prints them), writes each as a PNG file (500 ppi) and all
three side by side into one more. With no scanner at hand, --virtual runs
against the virtual scanner.

From the build tree (the module is built into build/default/python):

    PYTHONPATH=build/default/python /usr/bin/python3 examples/python/capture.py --virtual

With python3-kr7 installed: python3 capture.py [--virtual] [--out DIR].
"""

import argparse
import os
import sys

import numpy

import kr7


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--virtual", action="store_true", help="use the virtual scanner")
    parser.add_argument("--plugin", help="the plug-in file (default: the installed one)")
    parser.add_argument("--count", type=int, default=3, help="results to take (3)")
    parser.add_argument("--out", default="out/python", help="folder of the images")
    args = parser.parse_args()

    os.makedirs(args.out, exist_ok=True)
    try:
        with kr7.open(virtual=args.virtual, plugin=args.plugin) as scanner:
            info = scanner.info
            print(f"scanner {info.product}, serial {info.serial} (plug-in {info.version})")
            print("place a finger on the platen, hold it still, lift it; again")
            results = []
            for result in scanner.capture(mode="plain", count=args.count, timeout=30):
                name = os.path.join(args.out, f"result-{result.number:03d}.png")
                kr7.save(name, result.image)
                height, width = result.image.shape
                print(f"result {result.number}: {name}  {width}x{height}  "
                      f"area {result.area:.0%}  contrast {result.contrast:.0%}")
                results.append(result)
    except kr7.LoadError as e:
        sys.exit(f"cannot load {e.file}: {e.reason}")
    except kr7.Error as e:
        sys.exit(f"the scanner failed: {e}")
    except KeyboardInterrupt:
        sys.exit("interrupted")
    if not results:
        sys.exit("no finger within 30 s")

    # All of them in one picture, side by side.
    sheet = os.path.join(args.out, "results.png")
    kr7.save(sheet, numpy.hstack([r.image for r in results]))
    print(f"{len(results)} results; side by side: {sheet}")


if __name__ == "__main__":
    main()
