// Imports Absent.dll, which no search finds.
int Absent (void);

__declspec (dllexport) int Dependent (void)
{
    return Absent ();
}
