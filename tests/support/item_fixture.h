// An item file opened as the process's item: t4mi_meta points at it and
// t4mi_file_type is set, as start-up leaves them. Restores both on exit.
#pragma once

#include <string>

#include "support/test_env.h"

namespace t4test {

class open_item {
public:
    open_item(const std::string& content, const std::string& mime_type);
    ~open_item();
    // Rewrites the item file in place (same descriptor).
    void rewrite(const std::string& content);
    const std::string& path() const { return file; }
    const std::string& metadir() const { return meta_dir; }

private:
    temp_dir dir;
    std::string file;
    std::string meta_dir;
};

} // namespace t4test
