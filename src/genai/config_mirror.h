// Internal to the bridge: conversion of the settings to and from the runtime.
#pragma once

#include "generation_config.h"
#include "python.h"

namespace velmora::genai {

// The pointer argument only selects the overload.
GenerationConfig FromRuntime(py::object object, GenerationConfig*);
WhisperGenerationConfig FromRuntime(py::object object, WhisperGenerationConfig*);

// Lock held. The result may be the config's own runtime object, updated.
py::object ToRuntime(const GenerationConfig& config);
py::object ToRuntime(const WhisperGenerationConfig& config);

}  // namespace velmora::genai
