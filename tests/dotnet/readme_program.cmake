# The C# program of bindings/dotnet/README.md, which is also the console
# sample, built with mcs and run under mono in the install layout
# (bin/ beside lib/), so the binding finds the library on its own.
file(READ ${BINDING}/README.md readme)
string(REGEX MATCH "```csharp\n(.*)\n```" block "${readme}")
if(NOT CMAKE_MATCH_1)
  message(FATAL_ERROR "no ```csharp block in ${BINDING}/README.md")
endif()
string(REGEX REPLACE "\n```.*" "" program "${CMAKE_MATCH_1}")
file(READ ${BINDING}/samples/VelmoraConsole/Program.cs sample)
if(NOT "${program}\n" STREQUAL "${sample}")
  message(FATAL_ERROR "the README's program differs from samples/VelmoraConsole/Program.cs")
endif()

file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK}/bin ${WORK}/lib)
file(WRITE ${WORK}/Program.cs "${program}")
file(COPY ${DLL} DESTINATION ${WORK}/bin)
file(CREATE_LINK ${LIBRARY} ${WORK}/lib/Tarvik.Velmora.Framework.OpenVINOBindings.so SYMBOLIC)
get_filename_component(built ${LIBRARY} DIRECTORY)
file(CREATE_LINK ${built}/velmora-runtime ${WORK}/lib/velmora-runtime SYMBOLIC)
execute_process(COMMAND ${MCS} -nologo -warnaserror -r:${WORK}/bin/Velmora.dll -out:${WORK}/bin/Example.exe ${WORK}/Program.cs
                RESULT_VARIABLE failed)
if(failed)
  message(FATAL_ERROR "mcs could not build the README's program")
endif()

# The sentence and recipe of the host test of real speech, as a 16-bit WAV.
execute_process(COMMAND espeak-ng -w ${WORK}/spoken.wav "Please call Stella and ask her to bring these things."
                COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND sox ${WORK}/spoken.wav -r 16000 -c 1 -b 16 ${WORK}/speech.wav COMMAND_ERROR_IS_FATAL ANY)

execute_process(COMMAND ${MONO} ${WORK}/bin/Example.exe ${MODELS}/smollm2 ${MODELS}/whisper-base ${WORK}/speech.wav
                OUTPUT_VARIABLE output RESULT_VARIABLE failed)
message("${output}")
if(failed)
  message(FATAL_ERROR "the README's program failed")
endif()
string(REGEX MATCH "Once upon a time[^\n]+" generated "${output}")
string(REGEX MATCH "Heard: [^\n]*" heard "${output}")
string(TOLOWER "${heard}" heard)
string(REGEX MATCHALL "please|call|stella|ask|bring|things" words "${heard}")
list(LENGTH words found)
if(found LESS 5 OR NOT generated)
  message(FATAL_ERROR "expected text after the prompt, and at least 5 of the spoken words heard")
endif()
