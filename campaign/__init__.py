"""Everything that proves, as one list of numbered cases: the list, what runs it, what is kept of it, the page that joins it."""
