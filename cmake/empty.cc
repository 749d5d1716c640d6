// Placeholder so that a folder without sources still forms a library.
