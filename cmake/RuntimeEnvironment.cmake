# Asks the environment's interpreter where everything is.
function(velmora_python_query out code)
  execute_process(COMMAND "${VELMORA_PYTHON_EXECUTABLE}" -c "${code}"
                  OUTPUT_VARIABLE value OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${VELMORA_PYTHON_EXECUTABLE} could not answer: ${code}")
  endif()
  set(${out} "${value}" PARENT_SCOPE)
endfunction()

velmora_python_query(VELMORA_LIBPYTHON_SONAME "import sysconfig; print(sysconfig.get_config_var('INSTSONAME'))")
velmora_python_query(VELMORA_PYTHON_BASE_PREFIX "import sys; print(sys.base_prefix)")
velmora_python_query(VELMORA_OPENVINO_DIR "import openvino, os; print(os.path.dirname(openvino.__file__))")
velmora_python_query(pybind11_DIR "import pybind11; print(pybind11.get_cmake_dir())")

set(Python_EXECUTABLE "${VELMORA_PYTHON_EXECUTABLE}")
# Embedded, the library links the interpreter's shared library. In a wheel it
# joins the host interpreter, whose symbols are already in the process: like
# any extension module it links no libpython, so it also loads into
# interpreters built without one.
if(VELMORA_BUNDLE_RUNTIME)
  find_package(Python REQUIRED COMPONENTS Interpreter Development.Embed)
else()
  find_package(Python REQUIRED COMPONENTS Interpreter Development.Module)
endif()
find_package(pybind11 CONFIG REQUIRED)
find_package(OpenVINO REQUIRED COMPONENTS Runtime PATHS "${VELMORA_OPENVINO_DIR}/cmake" NO_DEFAULT_PATH)

# The library finds everything it runs on in a folder beside its own file:
# the interpreter's shared library and standard library and the runtime
# packages, laid out as an interpreter prefix (cmake/runtime_folder.py). The
# build tree links that folder into the environment, an install copies it, so
# both run the same code path. Without it (the Python wheel) the library runs
# inside a host interpreter and finds the runtime's packages beside its own.
set(VELMORA_RUNTIME_FOLDER velmora-runtime)
set(VELMORA_RUNTIME_SCRIPT ${CMAKE_CURRENT_LIST_DIR}/runtime_folder.py)
set(velmora_stdlib python${Python_VERSION_MAJOR}.${Python_VERSION_MINOR})
if(VELMORA_BUNDLE_RUNTIME)
  set(VELMORA_RUNTIME_RPATH
      "$ORIGIN/${VELMORA_RUNTIME_FOLDER}/lib"
      "$ORIGIN/${VELMORA_RUNTIME_FOLDER}/lib/${velmora_stdlib}/site-packages/openvino/libs")
else()
  set(VELMORA_RUNTIME_RPATH "$ORIGIN/../openvino/libs")
endif()

# Links a runtime folder into DIR, for a binary built there that carries the
# library's code.
function(velmora_link_runtime_folder dir)
  execute_process(COMMAND "${VELMORA_PYTHON_EXECUTABLE}" "${VELMORA_RUNTIME_SCRIPT}" link
                          "${dir}/${VELMORA_RUNTIME_FOLDER}" RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "could not link the runtime folder into ${dir}")
  endif()
endfunction()
