#include "platform/fixed_paths.h"

#include <cstdlib>

std::string t4mi_fixed_path(std::string_view fixed)
{
    const char* root = std::getenv(T4MI_ROOT_ENV);
    std::string out;
    if (root != nullptr && root[0] != '\0') {
        out = root;
        while (!out.empty() && out.back() == '/')
            out.pop_back();
    }
    out.append(fixed);
    return out;
}
