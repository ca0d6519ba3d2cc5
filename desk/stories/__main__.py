"""Tells the stories: python3 -m desk.stories [--real-time] [--list] [STORY...]"""
import argparse
import sys
import tempfile
import time
from pathlib import Path

from desk.stories import lock_out, main_job, power_loss, start, upgrade, upgrade_back
from desk.stories.stage import Stage, StoryError
from router.virtual.client import NoNamespaces, RouterError
from router.virtual.state import TREE

STORIES = {"start": start, "job": main_job, "power-loss": power_loss, "lock-out": lock_out,
           "upgrade": upgrade, "upgrade-back": upgrade_back}
SPEED = 10


def arguments():
    parser = argparse.ArgumentParser(prog="demo", description="Boots a virtual router and shows what the agent does.")
    parser.add_argument("stories", nargs="*", metavar="STORY", help=", ".join(STORIES) + "; all when none is named")
    parser.add_argument("--real-time", action="store_true", help=f"not {SPEED} times faster than real")
    parser.add_argument("--build", type=Path, default=TREE / "build/release", help="build tree")
    chosen = parser.parse_args()
    unknown = set(chosen.stories) - set(STORIES)
    if unknown:
        parser.error(f"no such story: {', '.join(sorted(unknown))}")
    return chosen


def main():
    chosen = arguments()
    began = time.monotonic()
    stage = Stage(chosen.build, 1 if chosen.real_time else SPEED)
    stage.router.forget()
    try:
        with tempfile.TemporaryDirectory() as folder:
            stage.folder = Path(folder)
            for name in chosen.stories or STORIES:
                stage.story = name
                STORIES[name].tell(stage)
    except NoNamespaces as error:
        print(f"demo: {error}", file=sys.stderr)
        return 77
    except (RouterError, StoryError, TimeoutError) as error:
        print(f"\ndemo: the story {stage.story} ends here: {error}\n{stage.whole_story()}", file=sys.stderr)
        return 1
    finally:
        stage.leave()
    print(f"\nThe router is off again. All of this took {time.monotonic() - began:.1f} s"
          f"{'' if chosen.real_time else f'; the clock of the agent went {SPEED} times faster'}.")
    return 0


sys.exit(main())
