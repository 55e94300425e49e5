"""The rows that everyone stores: six mixed columns, the first a unique string; the same on every run."""

import datetime

FIRST_DAY = datetime.date(2019, 1, 1)
MATERIALS = ("Ash Birch Brass Bronze Cedar Cherry Chrome Copper Cork Cotton Elm Felt Flax Glass Hemp Iron Jute "
             "Käfer Leather Linen Maple Nickel Oak Paper Pewter Pine Rosé Silk Slate Steel Teak Tin Walnut Wool").split()
THINGS = ("basket bench board bottle bowl box brush bucket cabinet candle chair clock crate cup desk drawer easel fork "
          "frame hook jar kettle knife ladder lamp mirror mug pan plate rack scoop shelf spoon stool table théière tray "
          "vase").split()

COLUMNS = (  # name, data type, required, unique
    ("sku", "text", True, True),
    ("name", "text", True, False),
    ("quantity", "number", True, False),
    ("price", "number", True, False),
    ("active", "boolean", True, False),
    ("added", "date", False, False),
)


def columns(make, count=len(COLUMNS)):
    """Column records for a table of that many columns: the six, then their copies without uniqueness."""
    return [make(name + (f"_{turn}" if turn else ""), data_type, required, unique and not turn)
            for turn in range(count // len(COLUMNS)) for name, data_type, required, unique in COLUMNS]


def row(number, count=len(COLUMNS)):
    """The row as a caller gives it. One row in a hundred has a given quantity."""
    spread = number * 7919
    price = spread % 100_003 / 100
    values = {
        "sku": f"SKU-{number:07}",
        "name": f"{MATERIALS[spread % len(MATERIALS)]} {THINGS[spread % len(THINGS)]} {spread % 7 + 1}",
        "quantity": spread % 100,
        "price": price / 3 if number % 10 == 9 else price,
        "active": number % 3 != 0,
        "added": None if number % 20 == 19 else str(FIRST_DAY + datetime.timedelta(spread % 2000)),
    }
    for turn in range(1, count // len(COLUMNS)):
        values.update({f"{name}_{turn}": values[name] for name, *_ in COLUMNS})
    return values


def stored(values):
    """The row as insert would store it."""
    return [datetime.date.fromisoformat(value) if value and name.startswith("added") else value
            for name, value in values.items()]
