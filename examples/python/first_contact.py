#!/usr/bin/env python3
"""First contact with an arm's controller, from Python: open the connection, ask
for the versions, let the library call a 1 ms periodic function for two seconds
while printing a status line, then close.

    python3 first_contact.py [URL]      (default udpxdr://127.0.0.1#5000, where kalo-sim listens)
"""

import sys
import time

import kalo


def main():
    url = sys.argv[1] if len(sys.argv) > 1 else "udpxdr://127.0.0.1#5000"
    print(f"kalo {kalo.api_version()}: opening {url}")
    calls = 0

    def tick(arm):  # runs on the library's loop thread
        nonlocal calls
        calls += 1

    try:
        with kalo.Arm(url) as arm:
            print(f"controller version {arm.get_controler_version()}, {arm.points} control point(s)")
            period = arm.start_loop(tick, 0.001)
            print(f"periodic function every {period:.4f} s")
            for i in range(1, 9):
                time.sleep(0.25)
                print(f"\rt = {0.25 * i:4.2f} s   periodic calls = {calls:6d}", end="", flush=True)
            print()
            arm.stop_loop()
    except kalo.KaloError as error:
        print(f"failed: {error}", file=sys.stderr)
        return 1
    print(f"closed: {calls} periodic calls in 2 s")
    return 0 if calls > 0 else 1


if __name__ == "__main__":
    sys.exit(main())
