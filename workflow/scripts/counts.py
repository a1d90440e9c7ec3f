"""A count and what it counts, as the campaign's messages write it: the singular for exactly one."""


def format_count(n: int, singular: str, plural: str | None = None) -> str:
    """'1 file', '0 files', '3 files'; `plural` for a noun whose plural does not just add an 's'."""
    return f"{n} {singular if n == 1 else plural or singular + 's'}"
