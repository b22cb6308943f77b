#include "platform/metadata.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <sys/random.h>
#include <unistd.h>

#include "platform/safe_files.h"
#include "platform/t4mi_globals.h"

int metadata_v4_metadata_context_read(metadata_v4_metadata_context* md)
{
    std::ifstream in(md->path);
    if (!in)
        return 1;
    std::stringstream text;
    text << in.rdbuf();
    const auto j = nlohmann::json::parse(text.str(), nullptr, false);
    if (!j.is_object())
        return 1;
    md->mime_type = j.value("mime_type", std::string());
    md->guid = j.value("guid", std::string());
    md->video_streams = j.value("video_streams", int64_t(0));
    md->duration = j.value("duration", int64_t(0));
    if (const auto ts = j.find("time_scale"); ts != j.end() && ts->is_array() && ts->size() == 2 &&
                                              (*ts)[0].is_number_integer() && (*ts)[1].is_number_integer()) {
        md->time_scale_num = (*ts)[0].get<int64_t>();
        md->time_scale_den = (*ts)[1].get<int64_t>();
    }
    md->loaded = true;
    return 0;
}

int metadata_v4_metadata_context_write_metadata_to_file(metadata_v4_metadata_context* md, t4mi_meta_record* meta,
                                                       int flags, void* reserved)
{
    nlohmann::json j = {
        {"mime_type", md->mime_type},
        {"guid", md->guid},
        {"video_streams", md->video_streams},
        {"duration", md->duration},
        {"time_scale", {md->time_scale_num, md->time_scale_den}},
    };
    if (meta != nullptr && !meta->file_path.empty())
        j["file"] = meta->file_path;
    const std::string text = j.dump(2) + "\n";
    // A fresh exclusive temporary name, then rename: never written through a link.
    return t4mi_replace_file(md->path, text, 0644, true) == 0 ? 0 : 1;
}

void metadata_v4_metadata_close_file(metadata_v4_metadata_context*) {}

int auto_generate_metadata_guid(metadata_v4_metadata_context* md)
{
    if (!md->guid.empty())
        return 0;
    unsigned char bytes[16];
    if (getrandom(bytes, sizeof bytes, 0) != ssize_t(sizeof bytes)) {
        // No entropy source: time and pid still make a GUID unique enough for one machine.
        const uint64_t a = uint64_t(time(nullptr)) ^ (uint64_t(getpid()) << 32);
        for (int i = 0; i < 16; i++)
            bytes[i] = uint8_t((a >> ((i % 8) * 8)) ^ uint64_t(rand()));
    }
    char hex[33];
    for (int i = 0; i < 16; i++)
        std::snprintf(hex + 2 * i, 3, "%02x", bytes[i]);
    md->guid = hex;
    return 1;
}

void t4mi_standard_vars_to_metadata(metadata_v4_metadata_context* md)
{
    md->video_streams = t4mi_video_streams;
    md->duration = t4mi_time_duration;
    md->time_scale_num = t4mi_time_scale.num;
    md->time_scale_den = t4mi_time_scale.den;
    md->mime_type = t4mi_file_type;
}

void metadata_v4_context_close_the_file(t4mi_meta_record* meta)
{
    if (meta->file_fd >= 0)
        close(meta->file_fd);
    meta->file_fd = -1;
}

int metadata_v4_context_open_the_file(t4mi_meta_record* meta)
{
    int fd = -1;
    if (meta->dir_fd >= 0 && !meta->file_name.empty())
        fd = openat(meta->dir_fd, meta->file_name.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return 1;
    if (meta->file_fd >= 0)
        close(meta->file_fd);
    meta->file_fd = fd;
    return 0;
}

void t4mi_print_standard_metadata_state()
{
    if (t4mi_metadata == nullptr)
        return;
    std::fprintf(stderr, "* Metadata: type '%s' guid '%s' streams %lld duration %lld scale %lld/%lld%s\n",
                 t4mi_file_type.c_str(), t4mi_metadata->guid.c_str(), (long long)t4mi_metadata->video_streams,
                 (long long)t4mi_metadata->duration, (long long)t4mi_metadata->time_scale_num,
                 (long long)t4mi_metadata->time_scale_den, t4mi_metadata->loaded ? "" : " (new)");
}
