// Built as ResourceLibrary.dll, which exists for its resources (the function gives LoadedLibrary an
// address inside it), and as Absent.dll, which Dependent.dll imports and no search finds.
__declspec (dllexport) int Marker (void)
{
    return 42;
}
