"""Runs a notebook and fails on any cell error. The kernel runs on sys.executable itself: a Jupyter
kernel found on PATH may name another interpreter without the package's dependencies.
usage: python3 run_notebook.py NOTEBOOK.ipynb"""

import sys

import nbformat
from jupyter_client.manager import KernelManager
from nbclient import NotebookClient

notebook = nbformat.read(sys.argv[1], as_version=4)
manager = KernelManager(kernel_cmd=[sys.executable, "-Xfrozen_modules=off", "-m", "ipykernel_launcher", "-f",
                                    "{connection_file}"])
client = NotebookClient(notebook, km=manager, timeout=120)
client.execute()  # raises CellExecutionError on the first failing cell
outputs = [o for cell in notebook.cells for o in cell.get("outputs", [])]
print(f"notebook ran clean: {len(notebook.cells)} cells, {len(outputs)} outputs")
