"""What both lists of attacks need: how much of each to do, and waiting."""

import os
import random
import time

WAIT_SECONDS = 90.0  # an outer limit for a busy machine; what is waited for is quick

# A run of make test takes a sample of each table; QV_SECONDS=n takes all of every table and
# then goes on at random for so long. QV_SEED=n repeats a run. QV_ATTACKS names the attacks to
# run, all by itself; "none" leaves what is random.
SECONDS = float(os.environ.get("QV_SECONDS", "0"))
SEED = int(os.environ.get("QV_SEED", "0"), 0) or random.SystemRandom().getrandbits(48)
ONLY = os.environ.get("QV_ATTACKS", "").split()
rnd = random.Random(SEED)


class Failure(AssertionError):
    """What was waited for did not happen."""


def sample(rows, count):
    """So many rows in their order, first and last included; all of them in a long run."""
    rows = list(rows)
    if SECONDS or count >= len(rows):
        return rows
    inner = sorted(rnd.sample(range(1, len(rows) - 1), count - 2))
    return [rows[0]] + [rows[i] for i in inner] + [rows[-1]]


def chosen(attacks):
    return [attack for attack in attacks if not ONLY or attack.__name__ in ONLY]


def wait_for(what, condition, seconds=WAIT_SECONDS):
    """Calls condition() until it returns something true, and returns that."""
    end = time.monotonic() + seconds
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > end:
            raise Failure(f"{what}: not within {seconds} s")
        time.sleep(0.01)


def check(condition, text):
    if not condition:
        raise Failure(text)


def check_holds(target, before):
    """Waits until the process holds what it held, at most: what is on its way out may take a
    moment to leave."""
    over = {}

    def settled():
        now = target.holds()
        over.clear()
        over.update({what: (now[what][0], count + slack)
                     for what, (count, slack) in before.items()
                     if now[what][0] > count + slack})
        return not over

    try:
        wait_for("the process to let go", settled, 20)
    except Failure:
        raise Failure(f"more is held than before: {over}") from None
