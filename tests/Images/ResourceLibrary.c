// A library that exists for its resources; the function gives LoadedLibrary an address inside it.
__declspec (dllexport) int ResourceLibraryMarker (void)
{
    return 42;
}
