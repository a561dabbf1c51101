// The recordings below a directory in the order of their beginning, however many there are: they are found
// some thousands at a time, by a walk each, so that memory stays bounded. One thread.
#pragma once

#include <compare>
#include <set>
#include <string>

namespace orx {

struct CatalogueItem {
    std::string begun;  // YYYYMMDD-hhmmss; by the name where the server chose it, else as the file says
    std::string path;   // below the root
    auto operator<=>(const CatalogueItem &) const = default;
};

struct Catalogue {
    std::string root;     // ends in '/'
    std::string program;  // whose directory and days are looked into; empty: all below the root
    int bOpenOnly = 0;    // only files that have not got their final name yet
    size_t nMost = 16384;
};

// Whether the directory that is looked into can be read; errno says why not.
int CatalogueIsThere(const Catalogue &catalogue);

// The first nMost items behind one; fewer are the last ones.
std::set<CatalogueItem> CatalogueAfter(const Catalogue &catalogue, const CatalogueItem &last);

}  // namespace orx
