#pragma once
// Import/export decoration of the toolkit library Pivka.dll.
#ifdef PIVKA_BUILD
#define PIVKA_API __declspec(dllexport)
#else
#define PIVKA_API __declspec(dllimport)
#endif
