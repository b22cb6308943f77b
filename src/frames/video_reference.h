// The program's frame reference: finds or renders its frame for its context.
#pragma once

#include "platform/video_reference.h"

class scrolling_text_video_reference : public t4mi_video_frame_reference {
public:
    using t4mi_video_frame_reference::t4mi_video_frame_reference;
};
