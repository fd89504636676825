// Imports Absent.dll, which no search finds.
int Marker (void);

__declspec (dllexport) int Dependent (void)
{
    return Marker ();
}
