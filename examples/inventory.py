"""The stock of a small shop, kept in one JSON file."""

from talvern_client.utils.json_database import Column, JSONDatatable

db = JSONDatatable("inventory.json")
if "items" not in db.tables:
    db.create_table("items", [
        Column("code", "text", unique=True, validation_pattern=r"[A-Z]{2}-\d{3}$"),
        Column("name", "text"),
        Column("stock", "number", default=0),
    ])

for code, name in ("TE-101", "Green tea"), ("MU-301", "Mug"), ("TE-101", "Black tea"), ("te-102", "Black tea"):
    try:
        db.insert("items", {"code": code, "name": name})
    except ValueError as error:
        print("Refused:", error)
db.update("items", 0, {**db.get_row("items", 0), "stock": "38"})
db = JSONDatatable("inventory.json")  # as after a restart: each change was on the disk when its call returned
print(db.select("items", {"code": "TE-101"}))
db.display_table("items")
