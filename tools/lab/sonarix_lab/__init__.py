"""A laboratory of whole products in network namespaces. Tests use `Lab`, users the program `sonarix-lab`."""
from .errors import LabError, LabTimeout
from .laboratory import Lab

__all__ = ["Lab", "LabError", "LabTimeout"]
