# Sourced by run.sh and test.sh: installs the Debian packages that are
# missing, with sudo when not root. imagelib_install_deps run|test
imagelib_install_deps() {
  local pkgs=(cmake ninja-build g++ make pkg-config libtiff-dev libjpeg-dev libpng-dev
              python3-dev pybind11-dev python3-numpy python3-dask python3-distributed libgdal-dev)
  if [ "${1:-run}" = test ]; then
    # libgeotiff-dev: the GeoTIFF tests check our key directories with it.
    pkgs+=(libgeotiff-dev libgtest-dev libbenchmark-dev clang libclang-rt-14-dev imagemagick netpbm graphicsmagick
           libtiff-tools geotiff-bin gdal-bin python3-gdal pngcheck libjpeg-turbo-progs ghostscript ffmpeg
           python3-pytest)
  fi
  local missing=()
  for p in "${pkgs[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  local sudo=""
  if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
  echo "== installing: ${missing[*]}"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}
