<?php

declare(strict_types=1);

namespace Quorvex\Authority;

/** Prints the store as tables, section by section. */
final class Listing
{
    /** Section => the query for its table. Hashes of passwords stay where they are. */
    public const TABLES = [
        'accounts' => "SELECT login, CASE WHEN agent_id IS NULL THEN 'administrator' ELSE 'agent' END AS role, agent_id
                       FROM accounts ORDER BY agent_id, login",
        'agents' => 'SELECT * FROM agents ORDER BY id',
        'pools' => 'SELECT id, name FROM pools ORDER BY id',
        'templates' => "SELECT id, length(content) - length(replace(content, char(10), '')) AS lines
                        FROM templates ORDER BY id",
        'dataselections' => 'SELECT * FROM dataselections ORDER BY id',
        'requests' => 'SELECT * FROM requests ORDER BY id',
    ];

    /** Section => the query for the longer texts of its rows, each with a title. */
    private const TEXTS = [
        'pools' => "SELECT 'recommended routing table of pool ' || id AS title, recommended_rt AS content, id FROM pools
                    UNION ALL SELECT 'current routing table of pool ' || id, current_rt, id FROM pools
                    ORDER BY id, title DESC",
        'templates' => "SELECT 'template ' || id AS title, content FROM templates ORDER BY id",
    ];

    /** @param list<string> $sections keys of TABLES */
    public static function print(Store $store, array $sections): void
    {
        foreach ($sections as $i => $section) {
            echo $i > 0 ? "\n" : '', "== $section ==\n", self::table($store->rows(self::TABLES[$section]));
            $texts = isset(self::TEXTS[$section]) ? $store->rows(self::TEXTS[$section]) : [];
            echo implode('', array_map(self::text(...), $texts));
        }
    }

    /** Rows of equal keys as aligned columns; control characters in values are shown as escapes. */
    private static function table(array $rows): string
    {
        if ($rows === []) {
            return "(none)\n";
        }
        $cells = array_map(static fn (array $row): array => array_map(self::printable(...), array_values($row)), $rows);
        array_unshift($cells, array_keys($rows[0]));
        $widest = static fn (int $column): int => max(array_map(self::width(...), array_column($cells, $column)));
        $widths = array_map($widest, array_keys($cells[0]));
        $rule = array_map(static fn (int $width): string => str_repeat('-', $width), $widths);
        array_splice($cells, 1, 0, [$rule]);
        return implode('', array_map(static fn (array $line): string => self::aligned($line, $widths), $cells));
    }

    private static function aligned(array $line, array $widths): string
    {
        $pad = static fn (string $cell, int $width): string => $cell . str_repeat(' ', $width - self::width($cell));
        return rtrim(implode('  ', array_map($pad, $line, $widths))) . "\n";
    }

    private static function width(string $cell): int
    {
        return (int) preg_match_all('/./su', $cell);
    }

    private static function printable(int|string|null $value): string
    {
        return str_replace('\\x7c', '|', Answer::escape((string) $value));
    }

    /** A longer text, its lines set in. */
    private static function text(array $row): string
    {
        $lines = explode("\n", rtrim($row['content'], "\n"));
        $shown = array_map(static fn (string $l): string => rtrim('    ' . strtr($l, ["\r" => '\\r'])) . "\n", $lines);
        return "\n{$row['title']}:\n" . implode('', $shown);
    }
}
