# shellcheck shell=bash
# Sourced by scripts/demo.sh and bench/client_bench_lib.sh: the nginx server
# block they serve an origin with, a WebDAV server as korvmount expects one
# (PUT DELETE MKCOL COPY MOVE; PROPFIND from the dav-ext module, which the
# configuration must load; JSON autoindex for the listing fallback; no body
# size limit).

# webdav_server PORT ROOT [DIRECTIVE]: the server block, with DIRECTIVE
# (an access_log line, say) added when given.
webdav_server() {
  cat << BLOCK
  server {
    listen 127.0.0.1:$1;${3:+
    $3}
    root $2;
    autoindex on;
    autoindex_format json;
    dav_methods PUT DELETE MKCOL COPY MOVE;
    dav_ext_methods PROPFIND OPTIONS;
    create_full_put_path on;
    client_max_body_size 0;
  }
BLOCK
}
