#!/usr/bin/env python3
"""Writes a qel_net configuration database for trials on one machine: every
server at 127.0.0.1, every working path under one directory.

    tools/qel_config.py sysconf.db --dir /tmp/qel-trial [--info-port 18000] [--file-port 18080]
                        [--video-port 18888]

The agent's own defaults (a server at 192.168.1.1, paths under /root/bin-AOI)
are never written by this tool. Standard library only.
"""

import argparse
import os
import sqlite3
import sys
from contextlib import closing

DEFAULT_TREE = "/root/bin-AOI"

SYSCONF_CREATE = ("CREATE TABLE info_sysconf(信息名称 CHAR(100) PRIMARY KEY NOT NULL,"
                  "值 CHAR(100) NOT NULL,描述 CHAR(100) NOT NULL)")

# The configuration keys in load order: (key, default value, description).
DEFAULT_KEYS = [
    ("alarmimage", "/root/bin-AOI/alarmimage/", "报警图片存放的根目录"),
    ("template", "/root/bin-AOI/", "模板图片存放的根目录"),
    ("apppath", "/root/bin-AOI/", "编码进程存放的目录"),
    ("failpath", "/root/bin-AOI/qel_net/qel_fail/", "保存失败文件或信息的路径"),
    ("logpath", "/root/bin-AOI/qel_net/qel_log/", "日志保存路径"),
    ("qelpath", "/root/bin-AOI/qel_net/", "qel_net执行工作路径"),
    ("tdata", "/root/bin-AOI/qel_net/data/", "存放临时文件的路径"),
    ("serverip_info", "192.168.1.1", "信息的ip地址"),
    ("serverip_file", "192.168.1.1", "文件的ip地址"),
    ("serverip_video", "192.168.1.1", "视频流的ip地址"),
    ("serverport_info", "8000", "信息的端口"),
    ("serverport_file", "8080", "文件的端口"),
    ("serverport_video", "8888", "视频流的端口"),
    ("camera", "4", "使用的最大相机数"),
    ("detect", "2", "使用的检测序号数目"),
    ("useInlineName", "_dmrkpf_", "在调试中使用指定的设备号"),
    ("apppath_send", "/root/bin-AOI/qel_net/Quillon2", "发送app所在的路径"),
    ("thispath", "/root/bin-AOI/qel_net/sysconf.db", "本db文件所在的绝对路径"),
]

def make_db(path, workdir, info_port=None, file_port=None, overrides=None, video_port=None):
    """Write a configuration database with paths under `workdir` and servers at
    127.0.0.1; return `path`. `overrides` maps a key to a new value, or to None
    to leave that row out (unknown keys are added)."""
    workdir = os.path.abspath(workdir)
    values = {"serverport_info": str(8000 if info_port is None else info_port),
              "serverport_file": str(8080 if file_port is None else file_port),
              "serverport_video": str(8888 if video_port is None else video_port)}
    overrides = dict(overrides or {})
    rows = []
    for key, default, desc in DEFAULT_KEYS:
        if default == "192.168.1.1":
            default = "127.0.0.1"
        elif default.startswith(DEFAULT_TREE + "/"):
            default = os.path.join(workdir, default[len(DEFAULT_TREE) + 1:])
        value = overrides.pop(key, values.get(key, default))
        if value is not None:
            rows.append((key, value, desc))
    rows += [(k, v, "") for k, v in overrides.items() if v is not None]
    os.makedirs(os.path.dirname(os.path.abspath(path)), exist_ok=True)
    if os.path.exists(path):
        os.remove(path)
    with closing(sqlite3.connect(path)) as con:
        con.execute(SYSCONF_CREATE)
        con.executemany("insert into info_sysconf (信息名称,值,描述) values (?, ?, ?)", rows)
        con.commit()
    return path


def main(argv=None):
    ap = argparse.ArgumentParser(description="Write a loopback qel_net configuration database.")
    ap.add_argument("db", help="database file to (re)write")
    ap.add_argument("--dir", required=True, help="directory for the agent's working paths")
    ap.add_argument("--info-port", type=int, default=8000)
    ap.add_argument("--file-port", type=int, default=8080)
    ap.add_argument("--video-port", type=int, default=8888)
    a = ap.parse_args(argv)
    make_db(a.db, a.dir, a.info_port, a.file_port, video_port=a.video_port)
    print("wrote %s (servers 127.0.0.1:%d/%d/%d, paths under %s)"
          % (a.db, a.info_port, a.file_port, a.video_port, os.path.abspath(a.dir)))
    return 0


if __name__ == "__main__":
    sys.exit(main())
