// Time to build the image list of a package.
//
// usage: image-list-bench CONTENTS_XML ROUNDS
// Prints milliseconds, a line per round.
#include "core.hpp"
#include "image-list.hpp"
#include "xml.hpp"
#include "zepho-log.hpp"

#include <chrono>
#include <cstdio>
#include <cstdlib>

static image_list list;

int main(int argc, char **argv)
{
    if (argc != 3) {
        fprintf(stderr, "usage: image-list-bench CONTENTS_XML ROUNDS\n");
        return 2;
    }
    core_log_set_level(CORE_LOG_INF);
    for (int i = 0; i < atoi(argv[2]); ++i) {
        list = {};
        strlcpy(list.content_xml_path, argv[1], sizeof list.content_xml_path);
        list.image_count = MAX_IMAGE_NUMBER;
        const auto start = std::chrono::steady_clock::now();
        if (build_image_array_from_xml(&list) != CORE_OK)
            return 1;
        const std::chrono::duration<double, std::milli> taken = std::chrono::steady_clock::now() - start;
        printf("%.3f\n", taken.count());
    }
    return is_empty_image(&list.images[MAX_IMAGE_NUMBER - 1]) ? 1 : 0;
}
