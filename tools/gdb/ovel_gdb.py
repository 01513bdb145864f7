# SPDX-License-Identifier: Apache-2.0
"""Printers for gdb, which loads them with an installed library. Elsewhere:
`source ovel_gdb.py`.

They read fields by name, so the program needs debug information (`-g`). The library
needs none: what it alone knows, a kernel semaphore, is read by its layout on Linux.
"""

import gdb
import gdb.printing

NOT_BUILT = "not built, or destroyed"


def plain(value):
    """The number in an atomic, whatever classes the standard library wraps it in."""
    while value.type.strip_typedefs().code == gdb.TYPE_CODE_STRUCT:
        field = next(f for f in value.type.strip_typedefs().fields() if hasattr(f, "bitpos"))
        value = value[field]
    return int(value)


def counted(count, what):
    return f"{count} {what}" if count == 1 else f"{count} {what}s"


def kernel_semaphore(handle):
    """Of the kernel semaphore that a handle leads to: its units, and threads asleep for one.

    It is the words kind, which is 0, maximum, units and threads asleep. The highest bit of
    the units marks a wake-up under way.
    """
    words = handle.cast(gdb.lookup_type("unsigned int").pointer())
    if int(words) == 0 or int(words[0]) != 0:
        raise ValueError
    return int(words[2]) & 0x7FFFFFFF, int(words[3])


def units_and_waiting(semaphore):
    """Of a semaphore of either class: units available, and threads asleep for one."""
    units, asleep = kernel_semaphore(semaphore["_semaphore"])
    if any(field.name == "_value" for field in semaphore.type.strip_typedefs().fields()):
        value = plain(semaphore["_value"])
        return max(value, 0), max(-value, 0)
    return units, asleep


def thread_name(identifier):
    """As gdb numbers the thread that the system calls by `identifier`."""
    for thread in gdb.selected_inferior().threads():
        if thread.ptid[1] == identifier:
            return f"thread {thread.num}"
    return f"thread of identifier {identifier}"


def text(string):
    """The text of a std::string, also where the standard library's printers are missing."""
    if any(field.name == "_M_dataplus" for field in string.type.strip_typedefs().fields()):
        return string["_M_dataplus"]["_M_p"].string(length=int(string["_M_string_length"]))
    return string.format_string(raw=False).strip('"')


def pointee(pointer):
    """What a pointer leads to, as the type it says.

    As the element of an array: of a pointer's target gdb looks for the class that it really
    has, and complains about those of bodies that are lambdas.
    """
    return pointer.cast(pointer.type.target().array(0).pointer()).dereference()[0]


def first_pointer(value):
    """The first pointer in a value, with its bases and members searched in their order."""
    type_ = value.type.strip_typedefs()
    if type_.code == gdb.TYPE_CODE_PTR:
        return value
    if type_.code == gdb.TYPE_CODE_STRUCT:
        for field in type_.fields():
            found = first_pointer(value[field]) if hasattr(field, "bitpos") else None
            if found is not None:
                return found
    return None


def owned(pointer):
    """What a std::unique_ptr or a std::shared_ptr points to."""
    found = first_pointer(pointer)
    if found is None:
        raise ValueError
    return pointee(found)


def records(vector):
    """What the elements of a std::vector of std::unique_ptr point to."""
    one = vector["_M_impl"]["_M_start"]
    end = vector["_M_impl"]["_M_finish"]
    while one != end:
        yield owned(one.dereference())
        one += 1


def referred(value, name, type_name):
    """What the reference `name` in `value` refers to, as the type named."""
    field = next(f for f in value.type.strip_typedefs().fields() if f.name == name)
    pointer = gdb.lookup_type(type_name).pointer()
    place = gdb.Value(int(value.address) + field.bitpos // 8).cast(pointer.pointer())
    return pointee(place.dereference())


def name_of(record):
    """The name in the record of a place or a transition of an `ovel::net`, quoted."""
    return f'"{text(owned(record["name"]["_text"]))}"'


def record_of_transition(transition):
    """The record of a `petri_transition`; None unless it is one of an `ovel::net`.

    Told by the vtable's symbol: gdb does not find the classes of bodies that are lambdas.
    """
    try:
        record = referred(transition, "_function", "ovel::detail::transition_record")
    except gdb.error:
        return None  # the program has no such class
    vtable = int(record.address.cast(gdb.lookup_type("long").pointer()).dereference())
    symbol = gdb.execute(f"info symbol {vtable}", to_string=True)
    known = ("vtable for ovel::detail::body_record<", "vtable for ovel::detail::flush_record<")
    return record if symbol.startswith(known) else None


def record_of_place(place):
    """The record of a `petri_place`, which one of its transitions leads to, or None."""
    try:
        for _, arc in List(place["_arcs"]).children():
            transition = record_of_transition(arc.dereference()["_transition"].dereference())
            if transition is None:
                return None
            for record in records(referred(transition, "owner", "ovel::detail::net_core")["_places"]):
                if record["element"] == place.address:
                    return record
            return None
    except (gdb.error, ValueError):
        pass
    return None


class Printer:
    """One line for an object: its class, and what `describe` says of it."""

    def __init__(self, value):
        self.value = value

    def to_string(self):
        type_ = self.value.type.strip_typedefs().unqualified()
        try:
            return f"{type_.name}: {self.describe()}"
        except (gdb.MemoryError, ValueError):
            return f"{type_.name}: {NOT_BUILT}"
        except gdb.error as problem:
            # For a class with virtual functions, gcc describes the fields only where the
            # first of those is defined, which is in the library.
            hint = "" if type_.fields() else ", compile with -femit-class-debug-always"
            return f"{type_.name}: {problem}{hint}"


class Semaphore(Printer):
    def describe(self):
        units, waiting = units_and_waiting(self.value)
        return counted(units, "unit") + (f", {waiting} waiting" if waiting else "")


class Mutex(Printer):
    def describe(self):
        units, waiting = units_and_waiting(self.value["_semaphore"])
        return ("free" if units else self.owned()) + (f", {waiting} waiting" if waiting else "")

    def owned(self):
        return "owned"


class ReentrantMutex(Mutex):
    def owned(self):
        owner = plain(self.value["_owner"])
        times = counted(int(self.value["_depth"]), "time")
        return f"owned {times} by {thread_name(owner)}" if owner else "changing hands"


class Condition(Printer):
    def describe(self):
        units_and_waiting(self.value["_wait"])
        released = int(self.value["_released"])
        leaving = f", {released} released and leaving" if released else ""
        return f"{plain(self.value['_queued'])} waiting" + leaving


class Container(Printer):
    """A container whose `elements` are walked only as far as its size says."""

    def describe(self):
        self.assure_built()
        return counted(int(self.value["_size"]), "element")

    def children(self):
        try:
            self.assure_built()
            for index, element in enumerate(self.elements(int(self.value["_size"]))):
                yield str(index), element
        except (gdb.error, ValueError):
            return

    def display_hint(self):
        return "array"


class List(Container):
    def links(self):
        return self.value[self.value.type.strip_typedefs().fields()[0]]

    def assure_built(self):
        first = self.links()["_next"]
        if int(first) == 0 or first["_previous"] != self.links().address:
            raise ValueError

    def elements(self, size):
        # A node consists of the two links and then the value.
        value_type = self.value.type.strip_typedefs().template_argument(0)
        links = self.links()
        for _ in range(size):
            behind = int(links["_next"] + 1)
            aligned = -(-behind // value_type.alignof) * value_type.alignof
            yield gdb.Value(aligned).cast(value_type.pointer()).dereference()
            links = links["_next"].dereference()


class SkipList(Container):
    def assure_built(self):
        if int(self.value["_end"]["_previous"]) == 0:
            raise ValueError
        if int(self.value["_size"]) != 0:
            self.value["_head"].dereference().fetch_lazy()

    def elements(self, size):
        # Forward links come after a head of two integers, or after the back link and the
        # level of a node. The node's value comes before these.
        value_type = self.value.type.strip_typedefs().template_argument(0)
        pointer = gdb.lookup_type("char").pointer()
        step = pointer.sizeof
        offset = -(-value_type.sizeof // step) * step
        links = self.value["_head"].cast(pointer) + 8
        for _ in range(size):
            node = links.cast(pointer.pointer()).dereference()
            yield (node - offset).cast(value_type.pointer()).dereference()
            links = node + 2 * step


class Place(Printer):
    def describe(self):
        units_and_waiting(self.value["_mutex"]["_semaphore"])
        capacity = int(self.value["_channel"]["_capacity"])
        record = record_of_place(self.value)
        counts = f"{name_of(record)}, " if record is not None else ""
        counts += f"{int(self.value['_size'])} of {counted(capacity, 'token')}"
        for field, what in (
            ("_receive_size", "reserved"),
            ("_send_size", "to come"),
        ):
            if int(self.value[field]) != 0:
                counts += f", {int(self.value[field])} {what}"
        # What has passed it since the last count is known only to the library.
        if plain(self.value["_port"]) != 0:
            counts += ", with a port"
        for field, what in (("_receivers", "receiving"), ("_senders", "sending")):
            if waiting := (int(self.value[field]["present"]) & 0x1FFFFFFF) // 2:
                counts += f", {waiting} {what}"
        return counts


class Transition(Printer):
    def describe(self):
        self.value["_net"]["_groups"].fetch_lazy()
        state = counted(int(self.value["_firing"]), "firing")
        if int(self.value["_iterator"]["_position"]) != 0:
            state += ", queued"
        if not self.value["_activated"]:
            state += ", deactivated"
        record = record_of_transition(self.value)
        if record is not None:
            return f"{name_of(record)}, {state}"
        function = self.value["_function"].referenced_value()
        return f"{state}, fires {function.dynamic_type}"


class Net(Printer):
    def describe(self):
        units_and_waiting(self.value["_mutex"]["_semaphore"])
        firings = counted(int(self.value["_firings"]), "firing")
        if not self.value["_acquired"]:
            return f"running, {firings}"
        stopped = (
            self.value["_queue_thread_acquired"]
            and self.value["_thread_group_acquireds"] == self.value["_groups"]
        )
        return "stopped" if stopped else f"stopping, {firings}"

    def children(self):
        for what in ("place", "transition"):
            for index, element in List(self.value[f"_{what}s"]).children():
                yield f"{what} {index}", element.dereference()


class NamedNet(Printer):
    """An `ovel::net`: as the net in it, and its elements by name."""

    def core(self):
        return owned(self.value["_core"])

    def describe(self):
        core = self.core()
        state = Net(core["_net"]).describe()
        if core["_callers"]["_has_failed"]:
            return f"failed, {state}"
        return f"halted, {state}" if plain(core["_halted"]) else state

    def children(self):
        try:
            self.describe()
            for what, printer in (("place", Place), ("transition", Transition)):
                for record in records(self.core()[f"_{what}s"]):
                    element = record["element"].dereference()
                    # Their own names would only repeat it.
                    described = printer(element).describe().removeprefix(f"{name_of(record)}, ")
                    yield f"{what} {name_of(record)}", described
        except (gdb.error, ValueError):
            return


class Handle(Printer):
    """An `ovel::place` or `ovel::transition`, which refers to an element of a net."""

    def describe(self):
        record = pointee(self.value["_record"])
        element = record["element"].dereference()
        is_place = any(field.name == "_channel" for field in element.type.fields())
        described = (Place if is_place else Transition)(element).describe()
        name = name_of(record)
        return described if described.startswith(name) else f"{name}, {described}"


class ThreadGroup(Printer):
    def describe(self):
        units_and_waiting(self.value["_mutex"]["_semaphore"])
        threads = int(self.value["_threads"])
        started = int(self.value["_function"]) != 0 and int(self.value["_acquired"]) != threads
        state = "started" if started else "not started"
        if self.value["_concluded"]:
            state += ", concluded"
        return f"{counted(threads, 'thread')}, {state}, space {float(self.value['_space']):g} free"


class WorkGroup(Printer):
    def describe(self):
        crew = self.value["_crew"]
        units_and_waiting(crew["_mutex"]["_semaphore"])
        state = "stopped, " if crew["_stopped"] else ""
        state += counted(int(crew["_unfinished"]), "work item") + " unfinished"
        waiting = int(crew["_queue"]["_size"])
        state += f", {waiting} of them waiting" if waiting else ""
        threads = counted(int(crew["_threads"]), "thread")
        asleep = plain(crew["_asleep"])
        state += f", {threads}" + (f", {asleep} asleep" if asleep else "")
        return f"{state}, {float(crew['_space']):g} of {float(crew['_budget']):g} space free"


printers = gdb.printing.RegexpCollectionPrettyPrinter("ovel")
for name, pattern, printer in (
    ("semaphore", "(timed_)?semaphore", Semaphore),
    ("mutex", "(timed_)?mutex|detail::plain_mutex<.*>", Mutex),
    ("recursive_mutex", "(timed_)?recursive_mutex|detail::reentrant_mutex<.*>", ReentrantMutex),
    ("condition", "(timed_)?condition|detail::basic_condition<.*>", Condition),
    ("list", "list<.*>", List),
    ("skip_list", "skip_list<.*>", SkipList),
    ("petri_place", "petri_place", Place),
    ("petri_transition", "petri_transition", Transition),
    ("petri_net", "petri_net", Net),
    ("net", "net", NamedNet),
    ("place", "place<.*>", Handle),
    ("transition", "transition", Handle),
    ("thread_group", "thread_group", ThreadGroup),
    ("work_group", "work_group", WorkGroup),
):
    printers.add_printer(name, f"^ovel::({pattern})$", printer)
gdb.printing.register_pretty_printer(gdb.current_objfile(), printers, replace=True)
