# The C# program of the README (the console sample), built with mcs and run under mono in
# the install layout (bin/ beside lib/), so the binding finds the library on its own.
set(sample ${BINDING}/samples/VelmoraConsole/Program.cs)
file(READ ${BINDING}/README.md readme)
file(READ ${sample} program)
string(FIND "${readme}" "```csharp\n${program}```" at)
if(at LESS 0)
  message(FATAL_ERROR "the README's program differs from ${sample}")
endif()

file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK}/bin ${WORK}/lib)
file(COPY ${DLL} DESTINATION ${WORK}/bin)
file(CREATE_LINK ${LIBRARY} ${WORK}/lib/Tarvik.Velmora.Framework.OpenVINOBindings.so SYMBOLIC)
get_filename_component(built ${LIBRARY} DIRECTORY)
file(CREATE_LINK ${built}/velmora-runtime ${WORK}/lib/velmora-runtime SYMBOLIC)
execute_process(COMMAND ${MCS} -nologo -warnaserror -r:${WORK}/bin/Velmora.dll -out:${WORK}/bin/Example.exe ${sample}
                COMMAND_ERROR_IS_FATAL ANY)
# Input is checked before any model loads.
execute_process(COMMAND ${MONO} ${WORK}/bin/Example.exe ${MODELS}/smollm2 ${MODELS}/whisper-base ${WORK}/missing.wav
                ERROR_VARIABLE refused RESULT_VARIABLE status)
if(NOT status EQUAL 2 OR NOT refused MATCHES "^cannot read .*missing.wav: " OR refused MATCHES "Initializing")
  message(FATAL_ERROR "expected a missing WAV refused before loading, got ${status}: ${refused}")
endif()
# The sentence of the host test of real speech, as espeak-ng writes it (22.05 kHz, as the main README makes it).
execute_process(COMMAND espeak-ng -w ${WORK}/speech.wav "Please call Stella and ask her to bring these things."
                COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND ${MONO} ${WORK}/bin/Example.exe ${MODELS}/smollm2 ${MODELS}/whisper-base ${WORK}/speech.wav
                OUTPUT_VARIABLE output RESULT_VARIABLE failed)
message("${output}")
string(REGEX MATCH "Heard: [^\n]*" heard "${output}")
string(TOLOWER "${heard}" heard)
string(REGEX MATCHALL "please|call|stella|ask|bring|things" words "${heard}")
list(LENGTH words found)
if(failed OR found LESS 5 OR NOT output MATCHES "Once upon a time[^\n]+")
  message(FATAL_ERROR "expected the program to succeed, text after the prompt, and at least 5 of the spoken words heard")
endif()
file(REMOVE_RECURSE ${WORK})
