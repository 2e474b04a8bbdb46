// Replays fuzz inputs through a target without libFuzzer: each argument is a
// file or a folder of files.  Runs in every build so seeds never rot.
#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

static int replay_file(const std::string &path) {
  FILE *f = fopen(path.c_str(), "rb");
  if (!f) {
    perror(path.c_str());
    return 1;
  }
  std::vector<uint8_t> data;
  uint8_t buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, f)) > 0) data.insert(data.end(), buf, buf + n);
  fclose(f);
  LLVMFuzzerTestOneInput(data.data(), data.size());
  return 0;
}

int main(int argc, char **argv) {
  int files = 0, failures = 0;
  for (int i = 1; i < argc; ++i) {
    struct stat st;
    if (stat(argv[i], &st) != 0) {
      perror(argv[i]);
      return 1;
    }
    if (!S_ISDIR(st.st_mode)) {
      failures += replay_file(argv[i]);
      ++files;
      continue;
    }
    DIR *d = opendir(argv[i]);
    while (struct dirent *e = d ? readdir(d) : nullptr) {
      if (e->d_name[0] == '.') continue;
      failures += replay_file(std::string(argv[i]) + "/" + e->d_name);
      ++files;
    }
    if (d) closedir(d);
  }
  printf("replayed %d inputs\n", files);
  return (failures || files == 0) ? 1 : 0;
}
