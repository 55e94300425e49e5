"""The stock of a small shop, kept in one JSON file."""

import os
import tempfile

from talvern_client.utils.json_database import Column, JSONDatatable

with tempfile.TemporaryDirectory() as folder:
    path = os.path.join(folder, "inventory.json")
    db = JSONDatatable(path)
    db.create_table("items", [
        Column("code", "text", unique=True, validation_pattern=r"[A-Z]{2}-\d{3}$"),
        Column("name", "text"),
        Column("stock", "number", default=0),
        Column("price", "number", required=False),
        Column("on_sale", "boolean", default=False),
        Column("counted", "date", required=False),
    ])

    tea = db.insert("items", {"code": "TE-101", "name": "Green tea", "stock": "40", "price": "4.50"})
    mug = db.insert("items", {"code": "MU-301", "name": "Mug"})
    db.insert("items", {"code": "CO-201", "name": "Coffee", "stock": 12, "counted": "2024-03-15"})

    for item in (
        {"code": "TE-101", "name": "Black tea"},
        {"code": "te-102", "name": "Black tea"},
        {"code": "TE-102", "name": "Black tea", "price": "cheap"},
        {"code": "TE-102"},
    ):
        try:
            db.insert("items", item)
        except ValueError as error:
            print("Refused:", error)

    # An update replaces the whole row, so it starts from what the row holds.
    db.update("items", tea, {**db.get_row("items", tea), "stock": 38, "on_sale": True})
    db.delete("items", mug)

    # As after a restart: every change is in the file already.
    db = JSONDatatable(path)
    db.insert("items", {"code": "MU-302", "name": "Large mug", "price": 7.5, "on_sale": True})
    print(db.select("items", {"code": "TE-101"}))
    print(db.select("items", {"on_sale": True}, columns=["name", "stock"]))
    db.display_table("items")
