"""Placeholder; filled below."""
def add_parser(sub):
    pass
