# Finds the model of real weights that tests compute with, where scripts/setup --model puts it.
find_path(TOVANA_MINILM_DIR model.safetensors
  PATHS "${PROJECT_SOURCE_DIR}/models/all-MiniLM-L6-v2" NO_DEFAULT_PATH
  DOC "The folder of the model all-MiniLM-L6-v2, for the tests with real weights")
