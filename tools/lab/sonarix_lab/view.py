"""Output: a table on a terminal, lines otherwise."""
import collections
import shutil
import sys
import threading

_ALTERNATE = "\x1b[?1049h\x1b[?25l"
_NORMAL = "\x1b[?25h\x1b[?1049l"
_HOME = "\x1b[H"
_REST_OF_LINE = "\x1b[K"
_REST_OF_SCREEN = "\x1b[J"
_COLOURS = {"ONLINE": "\x1b[32m", "OFFLINE": "\x1b[31m"}
_PLAIN = "\x1b[0m"
_KEPT_CHANGES = 200
_CROWD = "crowd"


class LineView:
    """One line for each change, for a pipe or a file."""

    def __init__(self, stream=sys.stdout):
        self._stream = stream

    def changed(self, seconds, text):
        print(change_line(seconds, text), file=self._stream, flush=True)

    def draw(self, lab, headline):
        pass

    def close(self, lab):
        pass


class TableView:
    """The whole table, redrawn at each change, with the last changes below it."""

    def __init__(self, stream=sys.stdout):
        self._stream = stream
        self._changes = collections.deque(maxlen=_KEPT_CHANGES)
        self._guard = threading.Lock()
        self._entered = False

    def changed(self, seconds, text):
        with self._guard:
            self._changes.append(change_line(seconds, text))

    def draw(self, lab, headline):
        if not self._entered:
            self._stream.write(_ALTERNATE)
            self._entered = True
        width, height = shutil.get_terminal_size()
        lines = [f"{lab.seconds:7.1f} s  {headline}", ""] + [
            line for line in lab.look(lambda tables: table_lines(tables, width))] + [""]
        with self._guard:
            room = max(0, height - len(lines) - 1)
            changes = list(self._changes)[-room:] if room else []
        lines = (lines + changes)[:height - 1]
        self._stream.write(_HOME + "".join(_clip(line, width) + _REST_OF_LINE + "\n" for line in lines)
                           + _REST_OF_SCREEN)
        self._stream.flush()

    def close(self, lab):
        """Leaves the alternate screen and prints the last table."""
        if self._entered:
            self._stream.write(_NORMAL + "\n".join(lab.look(lambda tables: table_lines(tables, 1000))) + "\n")
            self._stream.flush()


def change_line(seconds, text):
    return f"{seconds:9.3f} s  {text}"


def table_lines(tables, width):
    """A row per product: its own information and its state in the lists of the others."""
    members = tables.members
    head = ["PRODUCT", "MODE", "ADDRESS", "PROTOCOL"]
    rows = []
    for name in members:
        own = tables.own(name)
        listed = [tables.row(observer, name) for observer in members if observer != name]
        protocols = sorted({protocol for row in listed if row for protocol in row.protocols})
        rows.append([name, own.mode or "-", own.address or "-", "+".join(protocols) or "-"])
    for name in tables.guests:
        listed = [row for observer in members if (row := tables.row(observer, name))]
        protocols = sorted({protocol for row in listed for protocol in row.protocols})
        rows.append([name, "-", next((row.address for row in listed), "") or "-", "+".join(protocols) or "-"])
    if tables.crowd:
        rows.append([_CROWD, "-", "-", "-"])
    rows += [[guid, "-", row.address or "-", "+".join(row.protocols) or "-"] for guid, row in _foreign(tables).items()]

    wide = [[_cell(tables, observer, row[0], False) for observer in members] for row in rows]
    narrow = [[_cell(tables, observer, row[0], True) for observer in members] for row in rows]
    lines = []
    for cells in (wide, narrow):
        table = [head + members] + [row + cell for row, cell in zip(rows, cells)]
        widths = [max(len(line[column]) for line in table) for column in range(len(table[0]))]
        lines = ["  ".join(text.ljust(size) for text, size in zip(line, widths)).rstrip() for line in table]
        if max(len(line) for line in lines) <= width:
            break
    title = " " * (sum(widths[:4]) + 8) + "state as listed by, and the seconds since the start of its last change"
    return [_clip(title, width).rstrip()] + lines


def _foreign(tables):
    """Rows of products outside the laboratory."""
    found = {}
    known = {*tables.members, *tables.guests, *tables.crowd}
    for observer in tables.members:
        for name, row in tables.rows(observer).items():
            if name and name not in known:
                found.setdefault(name, row)
    return found


def _cell(tables, observer, target, narrow):
    if target == _CROWD:
        count = f"{tables.crowd_online(observer)}/{len(tables.crowd)}"
        return count if narrow else f"{count} ONLINE"
    row = tables.row(observer, target)
    if row is None:
        return "." if observer == target else "-"
    state = {"ONLINE": "on", "OFFLINE": "off"}.get(row.state, row.state) if narrow else row.state
    since = tables.since(observer, target)
    return f"{state} {since:.1f}" if since is not None else state


def _clip(line, width):
    clipped = line[:width]
    for state, colour in _COLOURS.items():
        clipped = _colour_words(clipped, state, colour)
    return clipped


def _colour_words(line, word, colour):
    return " ".join(colour + part + _PLAIN if part == word else part for part in line.split(" "))
