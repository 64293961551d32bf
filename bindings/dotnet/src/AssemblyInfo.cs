using System.Runtime.CompilerServices;

// The tests count the release slots through the internal tables.
[assembly: InternalsVisibleTo("Velmora.Tests")]
