"""Follows the video ring with the Python module and writes the stream to
PREFIX.<n>.h264, a new file each time the reader counts a restart of the
writer (n = restarts so far). Waits for a part that starts with a parameter
set after opening and after every break. On SIGTERM it prints
"parts=P lost=L overruns=O restarts=R" and exits 0.
Usage: ring_follow.py PREFIX"""

import os
import signal
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
import tarnwick  # noqa: E402

stopping = False


def stop(*_):
    global stopping
    stopping = True


def main():
    prefix = sys.argv[1]
    signal.signal(signal.SIGTERM, stop)
    reader = None
    while not stopping and reader is None:
        reader = tarnwick.RingReader.open(start_at_parameter_set=True)
        time.sleep(0.002)
    output, run = None, None
    while not stopping:
        for chunk in reader.poll():     # a poll never returns both sides of a restart
            if output is None or reader.restarts != run:
                if output is not None:
                    output.close()
                run = reader.restarts
                output = open("%s.%d.h264" % (prefix, run), "wb")
            output.write(chunk)
        time.sleep(0.002)
    if output is not None:
        output.close()
    if reader is not None:
        print("parts=%d lost=%d overruns=%d restarts=%d"
              % (reader.parts, reader.lost_parts, reader.overruns, reader.restarts))
        reader.close()


if __name__ == "__main__":
    main()
