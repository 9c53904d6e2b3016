"""What script/bench-compare makes of the measured figures: a table, JSON, a picture, a page."""
