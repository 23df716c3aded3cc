"""The report command's parts: what it asks git (gather), how it shows names
and columns safely (display), and the text layout (text)."""
