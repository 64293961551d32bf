// The LLM table's instance of the slots both families share.
#include "core/shared_slots.h"

#include "llm_slots.h"
#include "openvino_llm_model.h"

template struct velmora::SharedSlots<velmora::llm::OpenVinoLlmModel, velmora::Family::Llm, velmora::llm::kSettings>;
