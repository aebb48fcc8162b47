"""What a person who cannot see the popover would miss in it."""

CONTROLS = {"push button", "check box", "text", "combo box", "label"}  # that can have the focus


def complaints(nodes):
    """What is wrong with these nodes; nothing is well."""
    found = [] if "dialog" in [node.role for node in nodes] else ["no window"]
    for node in nodes:
        is_control = "focusable" in node.states
        if is_control and node.role not in CONTROLS:
            found.append(f"'{node.name}' is a {node.role}")
        if (is_control or node.role in ("label", "graphic")) and not node.name:
            found.append(f"a {node.role} without a name at {node.place}")
        # Qt tells a combo box's value for its name.
        if node.role == "combo box" and not node.labels:
            found.append(f"nothing names the choice '{node.name}'")
    return found
