# The memory limits of a target, sourced by run.sh and campaign.sh. The
# targets that read MP4 files take inputs of at most some 15 KB: a single
# allocation of 64 MiB is a blow-up (libFuzzer reports it as an
# out-of-memory finding), and after each modern open the target itself
# holds the heap to 16 bytes per input byte and 1 MiB (heap_ceiling.h;
# MP4CORE_FUZZ_HEAP_CEILING=0 in the environment turns that off).
memory_limits() {
  case "$1" in
    read_fuzz | access_fuzz | file_info_fuzz) echo "-malloc_limit_mb=64" ;;
  esac
}
