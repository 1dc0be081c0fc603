"""Quorvel: point-cloud algorithms for airborne and terrestrial LIDAR.

Clouds are built from numpy arrays (``Cloud(xyz, Classification=c)``) or read from LAS and
bundle files (``read("a.las")``); every field comes back as a numpy array (``cloud["Planarity"]``,
``cloud.xyz``). Every algorithm takes its parameter box; boxes accept their fields as keywords
(``ShapeFactorComputationParameterBox(normalvector=True)``). A run that reports an error raises
``Error`` with its message.
"""
from ._quorvel import *  # noqa: F401,F403
from ._quorvel import Error  # noqa: F401
from . import _quorvel


def _keyword_init(cls):
    plain = cls.__init__

    def __init__(self, *args, **fields):
        plain(self, *args)
        for name, value in fields.items():
            if name not in cls._fields:
                raise TypeError(f"{cls.__name__} has no field {name!r}")
            setattr(self, name, value)

    def __repr__(self):
        values = ", ".join(f"{name}={getattr(self, name)!r}" for name in cls._fields)
        return f"{cls.__name__}({values})"

    cls.__init__ = __init__
    cls.__repr__ = __repr__


for _name in dir(_quorvel):
    _cls = getattr(_quorvel, _name)
    if _name.endswith("ParameterBox") and hasattr(_cls, "_fields"):
        _keyword_init(_cls)
