"""Stand-in for the host's best_effort service: run a call, and on failure log
a warning naming the label and return a fallback value instead."""

import functools
import logging

logger = logging.getLogger(__name__)


def best_effort(label, fallback):
    def decorate(func):
        @functools.wraps(func)
        def wrapper(*args, **kwargs):
            try:
                return func(*args, **kwargs)
            except Exception as exc:  # the point of the service: never let it out
                logger.warning("%s failed: %s", label, exc)
                return fallback

        return wrapper

    return decorate
