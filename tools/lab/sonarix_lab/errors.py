"""What the laboratory says when it can't go on."""


class LabError(Exception):
    """One line for the person at the terminal: what is missing, or what to do next."""


class LabTimeout(LabError):
    """A state that was waited for has not come; the text says which and how things stand."""
