"""A laboratory of whole products in network namespaces. `Lab` is what a test drives, `sonarix-lab` what a person does."""
from .errors import LabError, LabTimeout
from .laboratory import Lab

__all__ = ["Lab", "LabError", "LabTimeout"]
