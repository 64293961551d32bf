// The Whisper table's instance of the slots both families share.
#include "core/shared_slots.h"

#include "openvino_whisper_model.h"
#include "whisper_slots.h"

template struct velmora::SharedSlots<velmora::whisper::OpenVinoWhisperModel, velmora::Family::Whisper,
                                     velmora::whisper::kSettings>;
