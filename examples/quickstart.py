"""A first look at quillmark: what this build offers."""

import quillmark

info = quillmark.build_info()
print(f"quillmark {info['version']} using the {info['cpu_simd']} CPU engine")
for policy in quillmark.numeric_policies():
    print(f"  storage {policy['dtype']:>10}  computed in {policy['compute_dtype']}")
