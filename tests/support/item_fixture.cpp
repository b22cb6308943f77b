#include "support/item_fixture.h"

#include <fcntl.h>
#include <unistd.h>

#include "platform/t4mi_globals.h"

namespace t4test {

open_item::open_item(const std::string& content, const std::string& mime_type)
{
    file = dir / "item.txt";
    meta_dir = dir / "meta";
    write_file(file, content);
    make_dirs(meta_dir);
    auto* meta = new t4mi_meta_record;
    meta->file_path = file;
    meta->dir_path = dir.path();
    meta->file_name = "item.txt";
    meta->file_fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    meta->dir_fd = open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    meta->meta_name_fd = open(meta_dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    t4mi_meta = meta;
    t4mi_file_metadir = meta_dir;
    t4mi_file_type = mime_type;
}

void open_item::rewrite(const std::string& content)
{
    const int fd = open(file.c_str(), O_WRONLY | O_TRUNC);
    if (fd >= 0) {
        [[maybe_unused]] const ssize_t n = write(fd, content.data(), content.size());
        close(fd);
    }
}

open_item::~open_item()
{
    if (t4mi_meta != nullptr) {
        for (int fd : {t4mi_meta->file_fd, t4mi_meta->dir_fd, t4mi_meta->meta_name_fd})
            if (fd >= 0)
                close(fd);
        delete t4mi_meta;
        t4mi_meta = nullptr;
    }
    t4mi_file_metadir.clear();
    t4mi_file_type.clear();
}

} // namespace t4test
