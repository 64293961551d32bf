# Asks the environment's interpreter where everything is.
function(velmora_python_query out code)
  execute_process(COMMAND "${VELMORA_PYTHON_EXECUTABLE}" -c "${code}"
                  OUTPUT_VARIABLE value OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${VELMORA_PYTHON_EXECUTABLE} could not answer: ${code}")
  endif()
  set(${out} "${value}" PARENT_SCOPE)
endfunction()

velmora_python_query(VELMORA_PYTHON_SITE_PACKAGES "import sysconfig; print(sysconfig.get_paths()['purelib'])")
velmora_python_query(VELMORA_LIBPYTHON_SONAME "import sysconfig; print(sysconfig.get_config_var('INSTSONAME'))")
velmora_python_query(VELMORA_LIBPYTHON_DIR "import sysconfig; print(sysconfig.get_config_var('LIBDIR'))")
velmora_python_query(VELMORA_OPENVINO_DIR "import openvino, os; print(os.path.dirname(openvino.__file__))")
velmora_python_query(pybind11_DIR "import pybind11; print(pybind11.get_cmake_dir())")

set(Python_EXECUTABLE "${VELMORA_PYTHON_EXECUTABLE}")
find_package(Python 3.11 EXACT REQUIRED COMPONENTS Interpreter Development.Embed)
find_package(pybind11 CONFIG REQUIRED)
find_package(OpenVINO REQUIRED COMPONENTS Runtime PATHS "${VELMORA_OPENVINO_DIR}/cmake" NO_DEFAULT_PATH)

set(VELMORA_RUNTIME_RPATH "${VELMORA_OPENVINO_DIR}/libs;${VELMORA_LIBPYTHON_DIR}")
