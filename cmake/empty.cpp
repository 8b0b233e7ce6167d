// Placeholder so that a module without sources yet still forms a library.
