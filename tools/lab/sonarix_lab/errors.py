"""Exceptions of the laboratory."""


class LabError(Exception):
    """The text is one line for the user: what is missing, or what to do."""


class LabTimeout(LabError):
    """An expected state was not reached in time. The text contains the expected and the actual state."""
