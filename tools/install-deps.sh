#!/bin/sh
# Installs the Debian packages the build needs, only those that are missing.
# Usage: tools/install-deps.sh [extra packages...]
set -e
# The Python package: pybind11, the interpreter's headers, NumPy, meshio (with h5py for
# the HDF5-based formats), pytest and matplotlib; VTK and Gmsh's Python modules, against
# which the tests prove the node orders of the mesh files; tqdm for the progress bars.
# OpenMPI, METIS and mpi4py for the distributed component, zlib for its compressed files.
packages="cmake g++ make liblapack-dev libtbb-dev libgtest-dev libbenchmark-dev
  libopenmpi-dev openmpi-bin libmetis-dev python3-mpi4py zlib1g-dev
  pybind11-dev python3-dev python3-numpy python3-meshio python3-h5py python3-pytest python3-matplotlib
  python3-vtk9 python3-gmsh python3-tqdm $*"
missing=""
for p in $packages; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
[ -z "$missing" ] && exit 0
echo "installing:$missing"
if [ "$(id -u)" -eq 0 ]; then sudo=""; else sudo="sudo"; fi
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends $missing
